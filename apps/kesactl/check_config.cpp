#include "check_config.h"

#include "CheckResult.h"
#include "locateComplaints.h"
#include "output.h"
#include "print_config.h"
#include "reviewRules.h"
#include "reviewRunDirectory.h"
#include "reviewSettings.h"

#include <CLI/CLI.hpp>
#include <comm/Clock.h>
#include <kesa/processName.h>
#include <kesa/runtime/v02/KesaConfigAccessor.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <obr/ErrorStorage.h>
#include <runtime/v02/config/ConfigReport.h>
#include <runtime/v02/config/reviewDocument.h>
#include <transport/RunDirectory.h>
#include <util/config/FrameworkProvider.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

namespace kesactl {
namespace {

using kesa::commadapter::CommSettings;
using kesa::runtime::v02::Complaint;
using kesa::runtime::v02::ConfigReport;
using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::KesaConfigAccessor;
using kesa::runtime::v02::KesaRuntime;
using kesa::runtime::v02::Severity;

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
                                    {"stream_window_bytes", settings.streamWindow},
                                    {"heartbeat_ms", settings.heartbeat / comm::MILLISECOND}};
    if (!settings.socketGroup.empty()) {
        values.set("socket_group", settings.socketGroup);
    }
    return util::config::Value(std::move(values));
}

/// As the start of a process finds it. Without a name: of one that framework.json does not name.
std::string partitionOf(const std::string& process, const KesaConfig& config, std::vector<Complaint>& complaints)
{
    std::string partition;
    if (util::config::FrameworkProvider::getNodenameForProcess(process, partition)) {
        complaints.push_back({Severity::eERROR,
                              {},
                              fmt::format("the partition of {} process cannot be found out: {}",
                                          process.empty() ? "a" : "the", obr::ErrorStorage::reason())});
        obr::ErrorStorage::ack();
    } else if (partition.empty()) {
        complaints.push_back({Severity::eWARNING,
                              {},
                              "framework.json gives the process a node with an empty name",
                              "write the name of the node, or leave the process out"});
    }
    if (process.empty()) {
        return {};
    }
    KesaConfigAccessor(config).getNodeDomainMapping(partition);
    return partition;
}

bool hasError(const std::vector<Complaint>& complaints)
{
    return std::any_of(complaints.begin(), complaints.end(),
                       [](const Complaint& complaint) { return complaint.severity == Severity::eERROR; });
}

/// What is wrong with tables of rules does not.
bool keepsFromStarting(const ConfigReport& report)
{
    return std::any_of(report.complaints.begin(), report.complaints.end(), [&report](const Complaint& complaint) {
        const bool isOfRules =
            complaint.path == report.path({"access"}) || complaint.path == report.path({"registry", "policy"});
        return complaint.severity == Severity::eERROR && !isOfRules;
    });
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
    const bool counts = report.firstError() == nullptr;
    std::optional<std::string> process;
    std::vector<Complaint> ofProcess; // these have no place in the document
    const std::string partition = partitionOf(arguments.process, config, ofProcess);
    if (!arguments.process.empty()) {
        process = arguments.process;
        if (const std::string complaint = kesa::complaintAboutProcessName(*process); !complaint.empty()) {
            ofProcess.push_back({Severity::eWARNING, {}, complaint, "its runtime does not start"});
        }
    }
    if (const std::string complaint = KesaConfig::complaintAboutPassedOver(); !complaint.empty()) {
        ofProcess.push_back({Severity::eWARNING, {}, complaint, {}});
    }
    reviewDocument(report);
    const CommSettings comm = reviewSettings(config, partition, report);
    const bool starts = !keepsFromStarting(report);
    RulesReview policy = reviewPolicy(report);
    RulesReview access = reviewAccess(report);
    const kesa::commadapter::transport::RunDirectory runDirectory(comm.runDir);
    if (std::optional<Complaint> complaint = reviewRunDirectory(runDirectory)) {
        if (complaint->path.empty()) {
            ofProcess.push_back(std::move(*complaint));
        } else {
            complaint->path = report.path(std::move(complaint->path));
            report.add(std::move(*complaint));
        }
    }
    locateComplaints(report);
    if (report.unlisted > 0) {
        report.complaints.push_back({Severity::eHINT,
                                     {},
                                     fmt::format("{} more warnings and hints are not listed", report.unlisted),
                                     "correct these first"});
    }
    report.complaints.insert(report.complaints.begin(), ofProcess.begin(), ofProcess.end());
    const CheckResult result{report.file,
                             process,
                             partition,
                             config,
                             report.firstError() == nullptr,
                             counts,
                             starts && !hasError(ofProcess),
                             std::move(policy),
                             std::move(access),
                             valueOf(comm),
                             runDirectory.path(),
                             runDirectory.source(),
                             report.complaints};
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
