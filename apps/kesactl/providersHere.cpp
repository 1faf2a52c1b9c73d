#include "providersHere.h"

#include "ProcessReport.h"
#include "RegistryView.h"
#include "otherRunDirectories.h"

#include <comm/wallClock.h>

#include <algorithm>

namespace kesactl {

bool isYoung(comm::TimeNs started)
{
    return comm::wallClock() - started < SETTLING;
}

std::optional<ProviderHere> findProviderHere(const std::string& path, comm::TimeNs deadline)
{
    RunDirectoryFacts directory(chosenRunDirectory());
    std::erase_if(directory.names, [](const RunDirectoryFacts::Name& name) {
        return name.isLost || !name.hasSocket || name.connectError != 0;
    });
    for (const ProcessReport& report : lookAtProcesses(directory, "", deadline)) {
        const auto& services = report.answer["services"].items();
        if (std::find(services.begin(), services.end(), util::config::Value(path)) != services.end()) {
            return ProviderHere{report.name, report.pid, isYoung(report.started())};
        }
    }
    return std::nullopt;
}

} // namespace kesactl
