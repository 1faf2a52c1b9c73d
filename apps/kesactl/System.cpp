#include "System.h"

#include "Failure.h"

#include <common/RegistryPlace.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <unistd.h>

namespace kesactl {

using kesa::runtime::v02::KesaRuntime;

System::System(bool isRegistryNeeded)
{
    const std::string name = "kesactl-" + std::to_string(::getpid());
    apps::RegistryPlace place = apps::findRegistryPlace(name, KesaRuntime::WITH_REGISTRYD);
    if (!place.problem.empty() && (isRegistryNeeded || place.endsProcess)) {
        throw Failure{ExitCode::eNO_REGISTRY, place.problem};
    }
    m_locators = std::move(place.locators);
    if (KesaRuntime::initInstance(name, KesaRuntime::WITH_REGISTRYD)) {
        KesaRuntime::shutdown();
        throw Failure{ExitCode::eFAILED, "the runtime did not start; KESA_TRACE=\"*=2\" shows why"};
    }
}

System::~System()
{
    KesaRuntime::shutdown();
}

std::unique_ptr<RegistryView> System::view(const std::string& glob) const
{
    return std::make_unique<RegistryView>(m_locators, glob);
}

} // namespace kesactl
