#include "providersHere.h"

#include "ProcessReport.h"
#include "RegistryView.h"
#include "Verdict.h"
#include "otherRunDirectories.h"

#include <comm/wallClock.h>
#include <transport/Authority.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesactl {

bool isYoung(comm::TimeNs started)
{
    return comm::wallClock() - started < SETTLING;
}

namespace {

using kesa::commadapter::transport::encodeProcessName;
using util::config::Value;
using Name = RunDirectoryFacts::Name;

/// Of one that has nothing here by which it could be asked.
Unseen explainNameless(const std::string& process, const std::vector<Name>& names)
{
    const auto lost = std::find_if(names.begin(), names.end(), [&process](const Name& name) {
        return name.isLost && name.name == encodeProcessName(process);
    });
    if (lost != names.end()) {
        return {fmt::format("its files were removed from the run directory under it ({})", lost->holder),
                "restart it, and keep cleaners out of there"};
    }
    return {
        "it provides nothing here, so it does not listen",
        "the traces of a kesa::Runtime name such a handler, in lines of KESA_EASE that begin with [loop]; kesactl can "
        "ask it once it provides something"};
}

/// Whoever has connected to `report`'s process and would not be found in the run directory.
void addNameless(std::vector<std::string>& nameless, const ProcessReport& report, const std::vector<Name>& names)
{
    for (const Value& connection : report.answer["connections"].items()) {
        const std::string process(connection["process"].stringView());
        const bool hasName =
            std::any_of(names.begin(), names.end(),
                        [encoded = encodeProcessName(process)](const Name& name) { return name.name == encoded; });
        std::string text = fmt::format("{} ({})", process, integerOf(connection["pid"]));
        if (connection["openedBy"] == "peer" && !process.empty() && !hasName && process.rfind("kesactl-", 0) != 0 &&
            std::find(nameless.begin(), nameless.end(), text) == nameless.end()) {
            nameless.push_back(std::move(text));
        }
    }
}

} // namespace

ProcessesHere askProcessesHere(const std::string& path, const std::string& only, comm::TimeNs deadline)
{
    RunDirectoryFacts directory(chosenRunDirectory());
    const std::vector<Name> names = directory.names;
    std::erase_if(directory.names, [&only](const Name& name) {
        const bool isReachable = name.hasSocket && name.connectError == 0;
        return name.isLost ||
               (only.empty() ? !isReachable
                             : name.name != encodeProcessName(only) || (name.holder == 0 && !isReachable));
    });
    ProcessesHere found;
    if (!only.empty() && directory.names.empty()) {
        found.unseen = explainNameless(only, names);
        return found;
    }
    for (const ProcessReport& report : lookAtProcesses(directory, "", deadline)) {
        const auto& services = report.answer["services"].items();
        if (std::find(services.begin(), services.end(), Value(path)) != services.end()) {
            found.provider = ProviderHere{report.name, report.pid, isYoung(report.started())};
        }
        for (const auto& hold : report.answer["holds"].items()) {
            found.held.push_back({report.name, report.pid, hold["loop"].toText(), hold["holder"].toText(),
                                  integerOf(hold["heldMs"]) * comm::MILLISECOND});
        }
        addNameless(found.nameless, report, names);
        if (!only.empty()) {
            const Unreached& silence = report.silence;
            found.unseen =
                silence.cause.empty() ? Unseen{report.advice, {}} : Unseen{silence.text, silence.advice, true};
        }
    }
    return found;
}

} // namespace kesactl
