#include "providersHere.h"

#include "ProcessReport.h"
#include "RegistryView.h"
#include "Verdict.h"
#include "otherRunDirectories.h"

#include <comm/wallClock.h>

#include <algorithm>

namespace kesactl {

bool isYoung(comm::TimeNs started)
{
    return comm::wallClock() - started < SETTLING;
}

ProcessesHere askProcessesHere(const std::string& path, const std::string& only, comm::TimeNs deadline)
{
    RunDirectoryFacts directory(chosenRunDirectory());
    std::erase_if(directory.names, [&only](const RunDirectoryFacts::Name& name) {
        return (!only.empty() && name.name != only) || name.isLost || !name.hasSocket || name.connectError != 0;
    });
    ProcessesHere found;
    for (const ProcessReport& report : lookAtProcesses(directory, "", deadline)) {
        const auto& services = report.answer["services"].items();
        if (std::find(services.begin(), services.end(), util::config::Value(path)) != services.end()) {
            found.provider = ProviderHere{report.name, report.pid, isYoung(report.started())};
        }
        for (const auto& hold : report.answer["holds"].items()) {
            found.held.push_back({report.name, report.pid, hold["loop"].toText(), hold["holder"].toText(),
                                  integerOf(hold["heldMs"]) * comm::MILLISECOND});
        }
    }
    return found;
}

} // namespace kesactl
