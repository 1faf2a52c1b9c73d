#include "backend/connection/IoLoop.h"

#include "backend/connection/Connection.h"
#include "backend/connection/Waiter.h"
#include "backend/connection/channel.h"

#include <comm/Scheduler.h>
#include <comm/endThrown.h>
#include <obr/GlobalErrorHandler.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesa::commadapter {

IoLoop::IoLoop(const CommSettings& settings)
    : m_settings(settings), m_reactor(comm::Scheduler::current().makeReactor("kesa-io")),
      m_hold(std::make_shared<comm::LoopHold>("I/O loop", [weak = std::weak_ptr<const comm::Reactor>(m_reactor)] {
          const auto reactor = weak.lock();
          return reactor ? reactor->heldFor() : 0;
      }))
{}

void IoLoop::onLoop(const char* function) const
{
    if (!isCurrent()) {
        obr::GlobalErrorHandler::doAssert(false, "isCurrent()", __FILE__, __LINE__, function,
                                          "only on the backend's I/O loop");
    }
}

namespace {

/// Tells the one who waits, also when the loop has ended and drops the work.
class Done {
public:
    explicit Done(std::shared_ptr<Waiter> waiter) noexcept : m_waiter(std::move(waiter)) {}
    Done(Done&&) noexcept = default;
    Done& operator=(Done&&) = delete;
    ~Done()
    {
        if (m_waiter) {
            const std::lock_guard lock(m_waiter->lock);
            m_waiter->isDone = true;
            m_waiter->condition.notifyAll();
        }
    }

private:
    std::shared_ptr<Waiter> m_waiter;
};

} // namespace

void IoLoop::runAndWait(const std::string& what, util::UniqueFunction<void()> work)
{
    if (isCurrent()) {
        const Turn turn(*this);
        work();
        return;
    }
    const auto waiter = std::make_shared<Waiter>();
    m_reactor->post([self = shared_from_this(), work = std::move(work), done = Done(waiter)]() mutable {
        {
            const Turn turn(*self);
            work();
        }
        const Done end(std::move(done));
    });
    std::unique_lock lock(waiter->lock);
    waitTracing(
        waiter->condition, lock, [&waiter] { return waiter->isDone; }, what);
}

void IoLoop::tellInside(const char* operation, const std::string& subject, const std::function<void()>& call)
{
    callOut(call,
            [operation, &subject] { return "the handler of " + std::string(operation) + " for '" + subject + '\''; });
}

void IoLoop::traceHeld(const std::string& what, comm::TimeNs held)
{
    if (const auto end = m_heldTraces.pass(comm::now())) {
        KESA_TRACE_TEXT(CHANNEL, 3,
                        fmt::format("[loop] {} took {} ms, in which this process sent and received nothing: leave what "
                                    "takes long or waits to a thread of your own, as kesa::on does{}",
                                    what, held / comm::MILLISECOND, *end));
    }
}

void IoLoop::endThrown(const std::string& what)
{
    comm::endThrown(CHANNEL, what);
}

void IoLoop::flushAtTurnEnd(Connection& connection)
{
    m_gathered.push_back(connection.shared_from_this());
    if (m_depth == 0 && m_gathered.size() == 1) { // called by somebody's timer: no turn of ours is under way
        m_reactor->atTurnEnd([self = shared_from_this()] { const Turn turn(*self); });
    }
}

void IoLoop::flushGathered()
{
    while (!m_gathered.empty()) {
        for (const auto& connection : std::exchange(m_gathered, {})) {
            connection->flush();
        }
    }
}

void IoLoop::destroyAtTurnEnd(std::unique_ptr<transport::IStream> stream, std::unique_ptr<protocol::Machine> machine)
{
    onLoop(__func__);
    if (m_depth > 0) {
        m_remains.emplace_back(std::move(stream), std::move(machine));
    }
}

void IoLoop::add(Connection& connection)
{
    onLoop(__func__);
    m_connections.push_back(&connection);
}

void IoLoop::remove(Connection& connection)
{
    onLoop(__func__);
    std::erase(m_connections, &connection);
}

void IoLoop::waitForRoom(Connection& connection)
{
    m_waitingForRoom.push_back(connection.weak_from_this());
}

void IoLoop::roomFreed()
{
    for (const auto& waiting : std::exchange(m_waitingForRoom, {})) {
        if (const auto connection = waiting.lock()) {
            m_turns.again(*connection);
        }
    }
}

void IoLoop::expectSomething()
{
    // The load only spares the exchange, which decides.
    if (!m_isBeating.load(std::memory_order_relaxed) && !m_isBeating.exchange(true)) {
        post([this] { startHeartbeat(); });
    }
}

void IoLoop::startHeartbeat()
{
    const comm::TimeNs pause = std::clamp(m_settings.heartbeat / 4, comm::MILLISECOND, comm::SECOND);
    const comm::TimeNs due = comm::now() + pause;
    startTimer(due, [this, due] { beat(due); });
}

void IoLoop::beat(comm::TimeNs due)
{
    const comm::TimeNs now = comm::now();
    const bool hasSlept = now - due > m_settings.heartbeat / 2;
    // Before looking: whoever begins to expect something meanwhile starts the heartbeat again.
    m_isBeating = false;
    std::vector<std::shared_ptr<Connection>> connections;
    for (Connection* const connection : m_connections) {
        connections.push_back(connection->shared_from_this());
    }
    bool isOwed = false;
    for (const auto& connection : connections) {
        isOwed = connection->checkAlive(now, hasSlept) || isOwed;
    }
    if (isOwed && !m_isBeating.exchange(true)) {
        startHeartbeat();
    }
}

} // namespace kesa::commadapter
