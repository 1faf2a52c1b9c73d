#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_IOLOOP_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_IOLOOP_H

#include "backend/connection/CommSettings.h"
#include "backend/connection/FairTurns.h"
#include "backend/connection/OncePerPeer.h"
#include "backend/connection/QueuedBytes.h"
#include "backend/connection/UserAccounts.h"
#include "protocol/Machine.h"
#include "transport/ITransport.h"

#include <comm/ICallWatch.h>
#include <comm/LoopHold.h>
#include <comm/OncePer.h>
#include <comm/PeerLines.h>
#include <comm/Reactor.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kesa::commadapter {

class Connection;

/// What all connections of one backend share: the reactor, the gathering of output, the bound on queued bytes, and the
/// heartbeat, which runs only while some connection is owed something. Outlives the backend as long as a client
/// object or response handler does. In its turns it watches the calls of handlers. Loop only, unless said otherwise.
class IoLoop : public std::enable_shared_from_this<IoLoop>, private comm::ICallWatch {
public:
    explicit IoLoop(const CommSettings& settings);

    const CommSettings& settings() const noexcept { return m_settings; }
    const std::shared_ptr<comm::Reactor>& reactor() const noexcept { return m_reactor; }
    /// Any thread.
    bool isCurrent() const noexcept { return m_reactor->isCurrent(); }
    /// What holds it, for other threads. Never null.
    std::shared_ptr<const comm::LoopHold> hold() const noexcept { return m_hold; }
    /// Asserts that this is the loop.
    void onLoop(const char* function) const;

    /// One entry into the backend's code from the reactor. At the end of the outermost one everything leaves that was
    /// gathered meanwhile.
    class Turn {
    public:
        explicit Turn(IoLoop& loop) noexcept : m_loop(loop), m_watch(&loop) { ++m_loop.m_depth; }
        ~Turn()
        {
            if (m_loop.m_depth == 1) {
                m_loop.flushGathered();
                m_loop.m_remains.clear();
            }
            --m_loop.m_depth;
        }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        IoLoop& m_loop;
        const Scope m_watch;
    };

    /// Runs `work` on the loop, as a turn. After the loop's end it is destroyed here. Any thread.
    template <class Work>
    void post(Work work)
    {
        m_reactor->post([self = shared_from_this(), work = std::move(work)]() mutable {
            const Turn turn(*self);
            work();
        });
    }
    template <class Work>
    comm::Reactor::Id startTimer(comm::TimeNs when, Work work)
    {
        return m_reactor->startTimer(when, [self = shared_from_this(), work = std::move(work)]() mutable {
            const Turn turn(*self);
            work();
        });
    }
    /// Runs `work` on the loop and returns when it has run, or when the loop has ended; on the loop itself: at once.
    /// A wait of over a second is traced with `what`. Any thread.
    void runAndWait(const std::string& what, util::UniqueFunction<void()> work);
    /// Runs something foreign in a turn. Traces what `describe` says of it when that took long, once in a second, and
    /// when it has thrown, which ends the process. Other threads may ask for it meanwhile.
    template <class Call, class Describe>
    void callOut(Call&& call, const Describe& describe)
    {
        try {
            const comm::LoopHold::Call<Describe> underWay(*m_hold, describe);
            call();
        } catch (...) {
            endThrown(describe());
        }
        if (const comm::TimeNs held = m_reactor->lap(); held != 0) {
            traceHeld(describe(), held);
        }
    }
    void flushAtTurnEnd(Connection& connection);
    /// Destroys what a connection leaves behind once everybody has been told of its end, outside of a turn at once:
    /// closing descriptors and freeing buffers takes long.
    void destroyAtTurnEnd(std::unique_ptr<transport::IStream> stream, std::unique_ptr<protocol::Machine> machine);
    void add(Connection& connection);
    void remove(Connection& connection);
    /// From now on the heartbeat looks at the connections until none is owed anything. Any thread.
    void expectSomething();

    /// Of all connections. Any thread.
    QueuedBytes& queued() noexcept { return m_queued; }

    FairTurns& turns() noexcept { return m_turns; }
    UserAccounts& accounts() noexcept { return m_accounts; }
    /// It is read on when there is more room for unfinished messages.
    void waitForRoom(Connection& connection);
    void roomFreed();
    /// Of peers of another version, which try for ever.
    OncePerPeer& strangers() noexcept { return m_strangers; }
    /// What peers have had traced. Any thread.
    comm::PeerLines& peerLines() noexcept { return m_peerLines; }
    /// That they were cut off: what else they had traced must not hide that.
    comm::PeerLines& cutOffLines() noexcept { return m_cutOffLines; }

private:
    void tellInside(const char* operation, const std::string& subject, const std::function<void()>& call) override;
    [[noreturn]] static void endThrown(const std::string& what);
    void traceHeld(const std::string& what, comm::TimeNs held);
    void flushGathered();
    void startHeartbeat();
    void beat(comm::TimeNs due);

    const CommSettings m_settings;
    const std::shared_ptr<comm::Reactor> m_reactor;
    const std::shared_ptr<comm::LoopHold> m_hold;
    QueuedBytes m_queued;
    std::atomic<bool> m_isBeating{false};
    comm::PeerLines m_peerLines;
    comm::PeerLines m_cutOffLines;
    // Loop only.
    comm::OncePer m_heldTraces{comm::SECOND};
    OncePerPeer m_strangers;
    FairTurns m_turns{*this};
    UserAccounts m_accounts;
    std::vector<std::weak_ptr<Connection>> m_waitingForRoom;
    unsigned m_depth = 0;
    std::vector<std::shared_ptr<Connection>> m_gathered;
    std::vector<std::pair<std::unique_ptr<transport::IStream>, std::unique_ptr<protocol::Machine>>> m_remains;
    std::vector<Connection*> m_connections;
};

} // namespace kesa::commadapter

#endif
