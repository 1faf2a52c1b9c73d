#include "check_config.h"

#include "CheckResult.h"
#include "JsonPositions.h"
#include "advice.h"
#include "output.h"
#include "print_config.h"

#include <CLI/CLI.hpp>
#include <kesa/commadapter/checkCommSettings.h>
#include <kesa/runtime/v02/KesaConfigAccessor.h>
#include <obr/ErrorStorage.h>
#include <runtime/v02/config/ConfigReport.h>
#include <runtime/v02/config/reviewDocument.h>
#include <tracing/Sink.h>
#include <util/config/FrameworkProvider.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace kesactl {
namespace {

using kesa::runtime::v02::ConfigReport;
using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::KesaConfigAccessor;

struct Arguments {
    std::string file;
    std::string process;
    bool isJson = false;
};

/// The backend reads its part of the document by itself. Its sentences begin with "comm" and the key they are about,
/// which the path says as well.
void reviewComm(ConfigReport& report)
{
    const util::config::Value& comm = report.root["comm"];
    for (const std::string& sentence : kesa::commadapter::checkCommSettings(comm)) {
        constexpr std::string_view PREFIX = "\"comm\": ";
        const std::string text = sentence.substr(sentence.rfind(PREFIX, 0) == 0 ? PREFIX.size() : 0);
        const std::string key = text.substr(1, text.find('"', 1) - 1);
        report.complaints.push_back({3, false, report.path(comm[key].isDefined() ? "comm." + key : "comm"), text});
    }
}

/// Complaints beyond those of the reader; whoever reads a part of the document by itself adds its own here.
void review(const KesaConfig& config, ConfigReport& report)
{
    reviewDocument(report);
    reviewComm(report);
    const KesaConfigAccessor accessor(config);
    if (accessor.useRemoteRegistry() && !accessor.getRegistryLocatorsByPartition("*", true)) {
        report.complaints.push_back({3, false, report.path("use_registry"),
                                     "asks for a registry, but there are no locators for partition \"*\": a process on "
                                     "a node without locators of its own ends at start; write "
                                     "\"service_registry_locators\": {\"*\": [\"ipc://kesa-registryd/registry\"]}"});
    }
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
std::vector<CheckResult::Complaint> locate(const ConfigReport& report, const std::string& file)
{
    std::ifstream in(report.file, std::ios::binary);
    const JsonPositions positions(std::string(std::istreambuf_iterator<char>(in), {}));
    std::vector<CheckResult::Complaint> complaints;
    for (const auto& [severity, isFatal, path, text] : report.complaints) {
        const auto [line, column] = positions.find(path);
        complaints.push_back({isFatal ? 4 : severity, path, line, column, text});
        splitPlace(file, complaints.back());
        const std::string_view advice = adviceFor(text);
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

int checkConfig(const Arguments& arguments)
{
    if (!arguments.file.empty()) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): this program has one thread.
        setenv("KESA_CONFIG", arguments.file.c_str(), 1);
    }
    if (::secure_getenv("KESA_TRACE") == nullptr) {
        tracing::setThreshold("KESA_RUNTIME_CONFIG", 5); // everything is said below
    }
    ConfigReport report;
    const KesaConfig config(arguments.process, &report);
    review(config, report);
    std::optional<std::string> process;
    std::string partition;
    if (!arguments.process.empty()) {
        process = arguments.process;
        partition = partitionOf(arguments.process, config, report);
    }
    const std::string& file = report.file.empty() ? arguments.file : report.file;
    const CheckResult result{
        file, process, partition, config, config.m_valid && !hasFatal(report), locate(report, file)};
    print(arguments.isJson ? asJsonLine(asJson(result), "this cannot be said in JSON; leave out --json") + '\n'
                           : asText(result));
    return result.isValid ? 0 : 1;
}

} // namespace

void addCheckConfig(CLI::App& app, int& exitCode)
{
    auto arguments = std::make_shared<Arguments>();
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
