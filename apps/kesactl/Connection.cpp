#include "Connection.h"

#include "Failure.h"
#include "explainUnreachable.h"
#include "options.h"

#include <kesa/ease/handler.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace kesactl {

using kesa::runtime::v02::KesaRuntime;

ServiceDef findService(const System& system, const std::string& path, comm::TimeNs deadline, const std::string& hint)
{
    const auto [services, isAll] = system.view(literal(path))->list(deadline, true);
    if (services.empty() && !isAll) {
        RegistryView::failUnsettled();
    }
    if (services.empty()) {
        throw Failure{
            ExitCode::eFAILED,
            fmt::format("no service at {0}; kesactl why {0} says why, kesactl list what is there{1}", path, hint)};
    }
    return services.begin()->second;
}

void Connection::State::keep(const kesa::optional<Client>& newClient, bool isRefusal)
{
    const std::lock_guard lock(mutex);
    client = newClient;
    isRefused = isRefusal;
    changed.notifyAll();
}

Connection::Connection(ServiceDef service) : m_service(std::move(service))
{
    using Resolved = kesa::optional<Client>;
    m_subscription = KesaRuntime::getInstance()->resolveService(
        m_service, kesa::handler<Resolved>([state = m_state](const Resolved& client) { state->keep(client, false); },
                                           [state = m_state](const kesa::Response&) { state->keep({}, true); }));
}

Connection::~Connection()
{
    m_subscription.dispose();
}

Connection::Client Connection::tryClient(comm::TimeNs deadline)
{
    std::unique_lock lock(m_state->mutex);
    comm::waitFor(
        m_state->changed, lock, [this] { return m_state->client || m_state->isRefused; }, deadline);
    return m_state->client.value_or(nullptr);
}

bool Connection::isRefused()
{
    const std::lock_guard lock(m_state->mutex);
    return m_state->isRefused;
}

Connection::Client Connection::client(comm::TimeNs deadline)
{
    if (Client client = tryClient(timeToExplain(deadline))) {
        return client;
    }
    const kesa::url where =
        m_service.locators.empty() ? kesa::url(m_service.path.toString()) : m_service.locators.front();
    if (isRefused()) {
        throw Failure{ExitCode::eFAILED,
                      fmt::format("{} cannot be reached from here: it is in another run directory or on another "
                                  "host, and offers no other locator",
                                  where.toString())};
    }
    const Unreached why = explainUnreachable(where, std::max<comm::TimeNs>(deadline - comm::now(), 0));
    if (Client client = tryClient(deadline)) { // it may have come meanwhile
        return client;
    }
    throw Failure{ExitCode::eTIMED_OUT, fmt::format("no connection to {}: {}", where.toString(), why.text), 0,
                  why.advice};
}

} // namespace kesactl
