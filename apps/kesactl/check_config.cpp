#include "check_config.h"

#include "CheckResult.h"
#include "JsonPositions.h"
#include "output.h"
#include "print_config.h"
#include "reviewSettings.h"

#include <CLI/CLI.hpp>
#include <backend/readCommSettings.h>
#include <comm/Clock.h>
#include <kesa/processName.h>
#include <kesa/runtime/v02/KesaConfigAccessor.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <obr/ErrorStorage.h>
#include <runtime/v02/config/ConfigReport.h>
#include <runtime/v02/config/advice.h>
#include <runtime/v02/config/reviewDocument.h>
#include <transport/RunDirectory.h>
#include <util/config/FrameworkProvider.h>

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace kesactl {
namespace {

using kesa::commadapter::CommSettings;
using kesa::runtime::v02::ConfigReport;
using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::KesaConfigAccessor;
using kesa::runtime::v02::KesaRuntime;

struct CheckConfigArguments {
    std::string file;
    std::string process;
    bool isJson = false;
};

/// What counts of "comm", the defaults among it.
util::config::Value valueOf(const CommSettings& settings)
{
    util::config::Dictionary routes;
    for (const auto& [path, locator] : settings.routes) {
        routes.set(path, locator);
    }
    util::config::Dictionary values{{"socket_mode", fmt::format("{:04o}", settings.socketMode)},
                                    {"routes", routes},
                                    {"max_message_bytes", settings.maxMessageBytes},
                                    {"send_queue_bytes", static_cast<std::uint64_t>(settings.sendQueueBytes)},
                                    {"heartbeat_ms", settings.heartbeat / comm::MILLISECOND}};
    if (!settings.socketGroup.empty()) {
        values.set("socket_group", settings.socketGroup);
    }
    return util::config::Value(std::move(values));
}

/// Takes the place, "FILE: " or "FILE:LINE:COLUMN: ", off the text of a document that cannot be read.
void splitPlace(const std::string& file, CheckResult::Complaint& complaint)
{
    std::string_view rest = complaint.text;
    if (file.empty() || rest.substr(0, file.size()) != file) {
        return;
    }
    rest.remove_prefix(file.size());
    const auto readNumber = [&rest](int& number) {
        if (rest.empty() || rest.front() != ':') {
            return false;
        }
        const auto [end, error] = std::from_chars(rest.data() + 1, rest.data() + rest.size(), number);
        rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
        return error == std::errc();
    };
    int line = 0;
    int column = 0;
    if (rest.substr(0, 2) != ": " && !(readNumber(line) && readNumber(column) && rest.substr(0, 2) == ": ")) {
        return;
    }
    complaint.line = line;
    complaint.column = column;
    complaint.text = std::string(rest.substr(2));
}

/// In the order in which they stand in the document.
std::vector<CheckResult::Complaint> locate(const ConfigReport& report)
{
    std::ifstream in(report.root.isDefined() ? report.file : "", std::ios::binary);
    const JsonPositions positions(std::string(std::istreambuf_iterator<char>(in), {}));
    std::vector<CheckResult::Complaint> complaints;
    for (const auto& [severity, isFatal, path, text] : report.complaints) {
        const auto [line, column] = positions.find(path);
        complaints.push_back({isFatal ? 4 : severity, path, line, column, text});
        splitPlace(report.file, complaints.back());
        const std::string_view advice = kesa::runtime::v02::adviceFor(text);
        if (!advice.empty()) {
            complaints.back().text.append(": ").append(advice);
        }
    }
    std::stable_sort(complaints.begin(), complaints.end(), [](const auto& a, const auto& b) {
        return std::pair(a.line, a.column) < std::pair(b.line, b.column);
    });
    return complaints;
}

bool hasFatal(const ConfigReport& report)
{
    for (const auto& complaint : report.complaints) {
        if (complaint.isFatal) {
            return true;
        }
    }
    return false;
}

/// As the start of a process finds it.
std::string partitionOf(const std::string& process, const KesaConfig& config, ConfigReport& report)
{
    std::string partition;
    if (util::config::FrameworkProvider::getNodenameForProcess(process, partition)) {
        report.complaints.push_back(
            {4, true, "", "the partition of the process cannot be found out: " + obr::ErrorStorage::reason()});
    }
    KesaConfigAccessor(config).getNodeDomainMapping(partition);
    return partition;
}

int checkConfig(const CheckConfigArguments& arguments)
{
    if (!arguments.file.empty()) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): this program has one thread.
        setenv("KESA_CONFIG", arguments.file.c_str(), 1);
    }
    ConfigReport report;
    const KesaConfig config = arguments.file.empty()
                                  ? KesaConfig::readOr(arguments.process, KesaRuntime::WITH_REGISTRYD, &report)
                                  : KesaConfig(arguments.process, &report);
    std::optional<std::string> process;
    std::string partition;
    if (!arguments.process.empty()) {
        process = arguments.process;
        partition = partitionOf(arguments.process, config, report);
        if (const std::string complaint = kesa::complaintAboutProcessName(*process); !complaint.empty()) {
            report.complaints.push_back({3, false, "", complaint + "; its runtime does not start"});
        }
    }
    reviewDocument(report);
    reviewSettings(config, partition, report);
    std::vector<std::string> said; // by the review
    const CommSettings comm = kesa::commadapter::readCommSettings(report.root["comm"], said);
    const kesa::commadapter::transport::RunDirectory runDirectory(comm.runDir);
    const CheckResult result{report.file,
                             process,
                             partition,
                             config,
                             config.m_valid && !hasFatal(report),
                             valueOf(comm),
                             runDirectory.path(),
                             runDirectory.source(),
                             locate(report)};
    print(arguments.isJson ? asJsonLine(asJson(result), "this cannot be said in JSON; leave out --json") + '\n'
                           : asText(result));
    return result.isValid ? 0 : 1;
}

} // namespace

void addCheckConfig(CLI::App& app, int& exitCode)
{
    auto arguments = std::make_shared<CheckConfigArguments>();
    CLI::App* const command = app.add_subcommand(
        "check-config", "Reads a configuration document as a process would; prints what it means and what is wrong.");
    command->add_option("FILE", arguments->file, "The document; without it the one a process started here would read.")
        ->check([](const std::string& file) { return file.empty() ? "the name of the file is empty" : ""; });
    command->add_flag("--json", arguments->isJson, "One JSON object instead of text.");
    command->add_option("--process", arguments->process, "The name of the process that reads it.")->type_name("NAME");
    command->footer("Exit code: 0 when the document is valid, 1 when it is not, 2 for wrong arguments, 5 when the "
                    "output cannot be written.");
    command->callback([arguments, &exitCode] { exitCode = checkConfig(*arguments); });
}

} // namespace kesactl
