#include "System.h"

#include "Failure.h"

#include <kesa/runtime/v02/KesaRuntime.h>

#include <fmt/format.h>

#include <algorithm>
#include <unistd.h>

namespace kesactl {

using kesa::runtime::v02::KesaRuntime;

System::System(bool isRegistryNeeded)
{
    const std::string name = "kesactl-" + std::to_string(::getpid());
    m_place = apps::findRegistryPlace(name, KesaRuntime::WITH_REGISTRYD);
    if (isRegistryNeeded || m_place.endsProcess) {
        checkRegistry();
    }
    if (KesaRuntime::initInstance(name, KesaRuntime::WITH_REGISTRYD)) {
        KesaRuntime::shutdown();
        throw Failure{ExitCode::eFAILED, "the runtime did not start; KESA_TRACE=\"*=2\" shows why"};
    }
}

System::~System()
{
    KesaRuntime::shutdown();
}

void System::checkRegistry() const
{
    if (m_place.asksForNone) {
        throw Failure{
            ExitCode::eNO_REGISTRY,
            fmt::format("{} asks for no registry, so all that is known is what it has itself: {}", m_place.source,
                        pathsOf(m_place.services)),
            0,
            "kesactl call PATH asks one of its services, kesactl call PATH --locator URL any other; a registry is for "
            "all, if all have \"use_registry\": true and its \"service_registry_locators\""};
    }
    if (!m_place.problem.empty()) {
        throw Failure{ExitCode::eNO_REGISTRY, m_place.problem};
    }
}

std::unique_ptr<RegistryView> System::view(const std::string& glob) const
{
    checkRegistry();
    return std::make_unique<RegistryView>(m_place.locators, glob);
}

const ServiceDef* System::findConfigured(const std::string& path) const
{
    const auto found = std::find_if(m_place.services.begin(), m_place.services.end(), [&path](const ServiceDef& each) {
        return each.path.toString() == path && !each.locators.empty();
    });
    return found == m_place.services.end() ? nullptr : &*found;
}

const kesa::url* System::registry() const
{
    return m_place.problem.empty() && !m_place.locators.empty() ? &m_place.locators.front() : nullptr;
}

std::string pathsOf(const std::vector<ServiceDef>& services)
{
    constexpr std::size_t MOST = 10;
    std::string text;
    for (std::size_t i = 0; i < services.size() && i < MOST; ++i) {
        text += (i == 0 ? "" : ", ") + services[i].path.toString();
    }
    return text.empty()             ? "no service"
           : services.size() > MOST ? fmt::format("{} and {} more", text, services.size() - MOST)
                                    : text;
}

} // namespace kesactl
