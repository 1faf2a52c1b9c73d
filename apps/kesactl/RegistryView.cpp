#include "RegistryView.h"

#include "Failure.h"
#include "RegistryViewState.h"
#include "explainNoRegistry.h"

#include <kesa/ease/handler.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace kesactl {

using kesa::runtime::v02::KesaRuntime;

RegistryView::RegistryView(std::vector<kesa::url> locators, const std::string& glob)
    : m_locators(std::move(locators)), m_state(std::make_shared<State>(m_locators.front(), glob))
{
    using Client = kesa::optional<std::shared_ptr<kesa::IKesaApi>>;
    const ServiceDef registry(kesa::Path("/registry"), ServiceDef::TypeEnum::registry, {}, m_locators);
    m_subscription = KesaRuntime::getInstance()->resolveService(
        registry, kesa::handler<Client>(
                      [state = m_state](const Client& api) {
                          if (api) {
                              state->connected(*api);
                          } else {
                              state->lost();
                          }
                      },
                      [state = m_state](const kesa::Response& error) { state->refused(error); }));
}

RegistryView::~RegistryView()
{
    {
        const std::lock_guard lock(m_state->mutex);
        m_state->hasEnded = true;
    }
    m_state->cancel();
    m_subscription.dispose();
}

/// False at the deadline; a `Failure` when the registry has told nothing by then. Why, is looked for at the end of the
/// time that is given, not after it; what comes meanwhile counts.
bool RegistryView::await(std::unique_lock<std::mutex>& lock, comm::TimeNs deadline,
                         const std::function<bool()>& predicate)
{
    comm::TimeNs end = timeToExplain(deadline);
    const comm::TimeNs rest = deadline - end;
    if (m_state->await(lock, end, predicate)) {
        return true;
    }
    deadline = end + rest;
    Unreached why;
    if (!m_state->isComplete) {
        lock.unlock();
        why = explainNoRegistry(m_locators.front(), std::max<comm::TimeNs>(deadline - comm::now(), 0));
        lock.lock();
    }
    const bool isSo = m_state->await(lock, deadline, predicate);
    if (!m_state->isComplete) {
        fail(why);
    }
    return isSo;
}

void RegistryView::await(comm::TimeNs deadline)
{
    std::unique_lock lock(m_state->mutex);
    await(lock, deadline, [this] { return m_state->isComplete; });
}

RegistryView::Answer RegistryView::list(comm::TimeNs deadline, bool isAnyEnough)
{
    std::unique_lock lock(m_state->mutex);
    await(lock, deadline,
          [&] { return m_state->isSettled() || (isAnyEnough && m_state->isComplete && !m_state->services.empty()); });
    return {std::exchange(m_state->services, {}), m_state->isSettled()};
}

bool RegistryView::waitFor(bool isGone, comm::TimeNs deadline, Answer& answer)
{
    std::unique_lock lock(m_state->mutex);
    const bool isSo = await(lock, deadline, [&] {
        return m_state->services.empty() == isGone && (isGone ? m_state->isSettled() : m_state->isComplete);
    });
    answer = {m_state->services, m_state->isSettled()};
    return isSo;
}

comm::TimeNs RegistryView::answeredAt()
{
    const std::lock_guard lock(m_state->mutex);
    return m_state->isComplete ? m_state->completedAt : comm::NEVER;
}

void RegistryView::failUnsettled()
{
    throw Failure{ExitCode::eTIMED_OUT,
                  "the registry has just started, and services may be on their way back to it; try again, or with a "
                  "longer --timeout"};
}

RegistryView::Event RegistryView::next()
{
    std::unique_lock lock(m_state->mutex);
    comm::TimeNs never = comm::NEVER;
    m_state->await(lock, never, [this] {
        m_state->announceGone();
        m_state->catchUp();
        return !m_state->events.empty();
    });
    Event event = std::move(m_state->events.front());
    m_state->events.pop_front();
    return event;
}

void RegistryView::interrupt()
{
    const std::lock_guard lock(m_state->mutex);
    m_state->isInterrupted = true;
    m_state->changed.notifyAll();
}

/// With the mutex held.
void RegistryView::fail(const Unreached& why) const
{
    const std::string& where = m_locators.front().toString();
    if (why.cause == "slow" && m_state->isConnected && !m_state->unavailable.empty()) {
        throw Failure{ExitCode::eNO_REGISTRY, fmt::format("the registry at {} answers {}", where, m_state->unavailable),
                      0, "ask again; its log may say what it waits for"};
    }
    if (why.cause == "slow" && m_state->isConnected && !m_state->services.empty()) {
        throw Failure{ExitCode::eTIMED_OUT,
                      fmt::format("the registry at {} has told of {} services, and of no end of them, within the time "
                                  "limit",
                                  where, m_state->services.size()),
                      0, "ask for fewer of them with a glob such as '/media/**', or give it more with --timeout"};
    }
    throw Failure{ExitCode::eNO_REGISTRY,
                  fmt::format("{} {}: {}", why.isSomebodyThere ? "no answer of the registry at" : "no registry at",
                              where, why.text),
                  0, why.advice};
}

} // namespace kesactl
