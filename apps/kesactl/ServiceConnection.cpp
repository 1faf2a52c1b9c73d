#include "ServiceConnection.h"

#include "Failure.h"
#include "adviseAround.h"
#include "explainUnreachable.h"
#include "options.h"

#include <kesa/ease/handler.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <util/shellWord.h>

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace kesactl {

using kesa::runtime::v02::KesaRuntime;

ServiceDef findService(const System& system, const std::string& path, comm::TimeNs deadline)
{
    if (const ServiceDef* const configured = system.findConfigured(path)) {
        return *configured;
    }
    const auto [services, isAll] = system.view(literal(path))->list(deadline, true);
    if (services.empty() && !isAll) {
        RegistryView::failUnsettled();
    }
    if (services.empty()) {
        const std::string meant = adviseAround(system, path, deadline);
        throw Failure{ExitCode::eFAILED, fmt::format("no service at {}", path), 0,
                      meant.empty()
                          ? fmt::format("kesactl why {} says why, kesactl list what is there", util::shellWord(path))
                          : meant};
    }
    return services.begin()->second;
}

void ServiceConnection::State::keep(const kesa::optional<Client>& newClient, bool isRefusal)
{
    const std::lock_guard lock(mutex);
    client = newClient;
    isRefused = isRefusal;
    changed.notifyAll();
}

ServiceConnection::ServiceConnection(ServiceDef service) : m_service(std::move(service))
{
    using Resolved = kesa::optional<Client>;
    m_subscription = KesaRuntime::getInstance()->resolveService(
        m_service, kesa::handler<Resolved>([state = m_state](const Resolved& client) { state->keep(client, false); },
                                           [state = m_state](const kesa::Response&) { state->keep({}, true); }));
}

ServiceConnection::~ServiceConnection()
{
    m_subscription.dispose();
}

ServiceConnection::Client ServiceConnection::tryClient(comm::TimeNs deadline)
{
    std::unique_lock lock(m_state->mutex);
    comm::waitFor(
        m_state->changed, lock, [this] { return m_state->client || m_state->isRefused; }, deadline);
    return m_state->client.value_or(nullptr);
}

bool ServiceConnection::isRefused()
{
    const std::lock_guard lock(m_state->mutex);
    return m_state->isRefused;
}

ServiceConnection::Client ServiceConnection::client(comm::TimeNs deadline)
{
    if (Client client = tryClient(timeToExplain(deadline))) {
        return client;
    }
    if (m_service.locators.empty()) {
        throw Failure{ExitCode::eFAILED, fmt::format("{} is registered without a locator", m_service.path.toString()),
                      0, "its provider has to name where it is"};
    }
    const kesa::url& where = m_service.locators.front();
    const Unreached why = explainUnreachable(where, std::max<comm::TimeNs>(deadline - comm::now(), 0));
    if (Client client = tryClient(deadline)) { // it may have come meanwhile
        return client;
    }
    throw Failure{isRefused() || !why.mayPass() ? ExitCode::eFAILED : ExitCode::eTIMED_OUT,
                  fmt::format("no connection to {}: {}", where.toString(), why.text), 0, why.advice};
}

} // namespace kesactl
