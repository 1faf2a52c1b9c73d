#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_CONNECTION_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_CONNECTION_H

#include "backend/connection/ConnectionFacts.h"
#include "backend/connection/FairTurns.h"
#include "backend/connection/IoLoop.h"
#include "backend/connection/PeerLimit.h"
#include "protocol/Machine.h"
#include "transport/ITransport.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kesa::commadapter {

using MakeHello = std::function<protocol::Hello()>;

/// A stream of bytes and the protocol machine on it: what both sides have in common. The heads of its files explain how
/// it reads, writes and ends. The derived classes hold what the streams of requests and answers mean to their side.
class Connection : public std::enable_shared_from_this<Connection>,
                   private transport::IStreamListener,
                   protected protocol::IMachineListener {
public:
    Connection(std::shared_ptr<IoLoop> loop, protocol::Role role);
    ~Connection() override;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Writes what is queued. Loop only.
    void flush();
    /// One beat of the heart: probes a peer that owes something, ends the connection to one that stays silent.
    /// `hasSlept`: the loop itself did not run in time, so nobody is judged. Answers whether there is anything to look
    /// for at the next beat. See the head of Connection_liveness.cpp. Loop only.
    bool checkAlive(comm::TimeNs now, bool hasSlept);

protected:
    using Lock = std::unique_lock<std::mutex>;

    /// Begins on `stream`. Called with the lock held, on the loop, while not open; then queue the first commands, and
    /// call `begin` without the lock.
    void open(std::unique_ptr<transport::IStream> stream, const protocol::Hello& own);
    void begin();
    /// Ends the stream: at once, or after the read batch that is being handled. Then `onClosed` is called. Loop only.
    void lose(std::string reason);
    static constexpr const char* TAKES_NOTHING = "it does not take what is sent to it";
    /// The same because of what the peer does, or does not. A server says so: a client's connector traces each new
    /// reason why it is not connected.
    void cutOff(std::string reason);
    enum class Haste {
        eAT_ONCE,
        eMAY_GATHER, ///< what comes right after another write may leave with what comes next
    };
    /// After a command to the machine, lock held: writes at once, or leaves it to the end of the batch or turn.
    void pushOut(Haste haste = Haste::eAT_ONCE);
    /// The heartbeat has found that the queue has not moved for its time, and nothing has moved since. What a caller
    /// finds by the clock may be that this process stood still. Lock held.
    bool isFoundStuck() const noexcept { return m_isFoundStuck; }
    /// Whether `moreBytes` would exceed the bound of what this connection may have queued: a client its requests, a
    /// server its values of persistent streams. What there is room for in no queue at all still passes an empty one.
    /// Lock held.
    bool isOverBound(std::size_t moreBytes) const;
    /// What connections have queued together that share a bound: those of its user, where he is not trusted and nearer
    /// to his bound, else all.
    struct Shared {
        std::size_t queued;
        std::size_t bound;
        bool isOfUser;
    };
    Shared shared(std::size_t QueuedBytes::Amount::*which) const;
    /// As `isOverBound`, of the values of persistent streams that it shares a bound with; false for a connection that
    /// has only a little of them queued.
    bool isSharedOverBound(std::size_t moreBytes) const;
    /// What is queued next goes beyond the bound: it must not be lost, and the peer is probably about to take it. One
    /// that takes nothing at all for the time of a heartbeat is cut off by the loop. Lock held.
    void queueBeyondBound() noexcept { m_isBeyondBound = true; }
    /// Nobody takes what is written any more; what the peer has sent is still handled. Lock held.
    bool isBroken() const noexcept { return m_isBroken; }
    /// The peer does not take its answers: it is served no further one. Any thread; one that asks without the lock may
    /// learn of it a little late.
    bool isHeld() const noexcept { return m_isHeld.load(std::memory_order_relaxed); }
    /// Whether nothing more is to be handed to anybody. Loop only.
    bool isLost() const noexcept { return !m_isOpen || m_lostReason.has_value(); }
    /// When bytes left last; on a client's blocked connection also when bytes came.
    comm::TimeNs lastProgress() const noexcept { return m_lastProgress; }
    /// When the last batch of what the peer sent began to be handled. With the lock held.
    comm::TimeNs lastHeard() const noexcept { return m_lastHeard; }

    /// Reads and handles what is there, and no further once handling it has taken a turn, message by message: a peer
    /// that sends very many keeps nobody else waiting, and the rest comes in a later turn, see `FairTurns`. Loop only.
    void readBatch() { readBatch(comm::now(), FairTurns::ROUND); }
    /// What the peer has sent by now, and its end if that has come, is read and handled, in as many batches as it
    /// takes; `isReadingOn` until then. Then `then` is called: at once where one batch is enough, never once the
    /// connection has ended. Loop only.
    void readAll(std::function<void()> then = {});
    /// Of what the peer has sent not all has been handled: the rest comes in later turns. Loop only, while open.
    bool isReadingOn() const noexcept { return m_isToReadOn; }

    /// Ends the stream as `lose` does, once what the peer had sent has been handled. Nothing is written any more. Loop
    /// only, while open.
    void endAfterInput(std::string reason);
    static constexpr const char* PROCESS_ENDED = "the peer's process has ended";

    /// For `onLarge`: whether the account of the peer's user has room, which is taken then. Loop only.
    bool hasRoom(std::size_t bytes, std::string& why);
    /// The message that begins, or all that is left, waits for it. Loop only.
    Room waitForRoom(const std::string& why);

    bool isOpen() const noexcept { return m_isOpen; }
    /// While open; lock held.
    protocol::Machine& machine() noexcept { return *m_machine; }
    /// Loop only, while open.
    const transport::PeerIdentity& peer() const noexcept { return m_stream->peer(); }
    /// A scope for what the peer causes.
    PeerLimit peerLimit() const noexcept { return {m_loop->peerLines(), m_peerPid}; }
    transport::IStream::Process peerProcess() const { return m_stream->process(); }
    IoLoop& loop() const noexcept { return *m_loop; }
    /// Fills in what both sides know of an open connection; `openedAt` by `comm::now`. Lock held, loop only.
    void addFacts(ConnectionFacts& facts, comm::TimeNs openedAt) const;

    /// The stream has ended; the lock is not held. Loop only.
    virtual void onClosed(const std::string& reason) = 0;
    /// Whether the peer owes an answer, and has for longer than a heartbeat. Lock held, loop only.
    virtual bool isAnswerOwed(comm::TimeNs now, bool& isLate) = 0;
    /// The queue is empty: what was held back may be queued now. Lock held, any thread.
    virtual void onQueueEmpty() {}
    /// Bytes of requests that have come and wait, since the peer is held, or was. Loop only.
    virtual std::size_t heldBytes() const { return 0; }
    /// Serves these until `until` has come, or the peer is held. Loop only, inside a batch.
    virtual void serveHeld(comm::TimeNs /*until*/) {}
    /// Bytes came from the peer, and what was in them has been handled. Loop only, while open.
    virtual void onSign(bool /*isPong*/) {}
    virtual std::string peerName() const = 0;

    // What only one side hears is nothing to the other.
    void onHello(const protocol::Hello&) override {}
    Room onLarge(std::uint32_t, std::size_t) override { return Room::eNONE; }
    void onAttach(std::uint32_t, std::string) override {}
    void onDetach(std::uint32_t) override {}
    void onRequest(std::uint32_t, std::uint32_t, Request, bool, std::size_t) override {}
    void onCancel(std::uint32_t) override {}
    void onCredit(std::uint32_t, std::uint32_t) override {}
    void onRequestCredit(std::uint32_t) override {}
    void onAttached(std::uint32_t) override {}
    void onDetached(std::uint32_t) override {}
    void onNext(std::uint32_t, Response, std::size_t) override {}
    void onError(std::uint32_t, Response) override {}
    void onCompleted(std::uint32_t) override {}
    void onGoodbye(std::string reason) override;

    /// Guards the output half of the machine, writing, and the tables of the derived class and its parts. Never held
    /// around a call into a handler, listener or service.
    mutable std::mutex m_lock;

private:
    void traceCutOff(const std::string& reason) const;
    void sayGoodbye(const std::string& reason);
    void onReadable() override;
    void onWritable() override;
    void onPeerExited() override;

    /// Who waits until what had come has been handled.
    struct Awaited {
        std::uint64_t end; ///< how many bytes had come
        std::function<void()> then;
    };
    friend FairTurns;
    void readBatch(comm::TimeNs begin, comm::TimeNs slice);
    bool receive(comm::TimeNs begin, comm::TimeNs until);
    void finishBatch(bool hasRead);
    void endBatch(bool hasRead, bool isPong, bool isEmpty);
    std::vector<Awaited> takeHandled(bool isEmpty);
    bool isHandled(const Awaited& awaited, bool isEmpty) const;
    void readOnLater();
    bool isWaitingForRoom() const noexcept;
    bool isInputStopped() const noexcept;
    bool isKeptEnough();
    bool isHeldLeft() const { return heldBytes() > 0 && !isHeld(); }
    std::size_t keptBytes() const;
    void countKept(std::size_t bytes);
    void countStanding(std::size_t bytes);
    void write();
    std::size_t holdBound() const;
    std::size_t boundedBytes() const;
    void holdIfOver();
    void endHold();
    void breakOff();
    void updateReading();
    void progressed(comm::TimeNs now) noexcept;
    void wantWrite();
    void writeFailed();
    void countQueued();
    void recount(const QueuedBytes::Amount& queued);
    bool isBurst() const;
    // Connection_liveness.cpp
    bool isOutputWaiting() const;
    bool isStuck(comm::TimeNs now) const;
    bool takesNothing(comm::TimeNs now);

    const std::shared_ptr<IoLoop> m_loop;
    const protocol::Role m_role;

    // Changed on the loop with the lock held; read on the loop, or with the lock held.
    std::unique_ptr<protocol::Machine> m_machine;
    std::unique_ptr<transport::IStream> m_stream;
    bool m_isOpen = false;
    std::int64_t m_peerPid = -1;
    std::uint64_t m_opened = 0; ///< how often
    // With the lock held.
    bool m_isBatch = false;       ///< a read batch is being handled
    bool m_isBlocked = false;     ///< waits for `onWritable`
    bool m_isBroken = false;      ///< a write failed
    bool m_isGathered = false;    ///< the loop is going to flush
    bool m_isBeyondBound = false; ///< since nothing was queued
    bool m_isFoundStuck = false;
    std::atomic<bool> m_isHeld{false}; ///< see the head of Connection_output.cpp; read by others, too
    comm::TimeNs m_lastProgress = 0;
    comm::TimeNs m_lastHeard = 0;
    QueuedBytes::Amount m_counted;
    std::shared_ptr<QueuedBytes> m_queuedForUser; ///< null: he is trusted
    // Loop only.
    bool m_isReceiving = false;
    bool m_isInLine = false;    ///< for a turn
    bool m_isToReadOn = false;  ///< in that, since the last one did not suffice for what had come
    bool m_wasCutShort = false; ///< the last turn has left something, or may have
    bool m_isReading = true;    ///< the stream reports what arrives
    bool m_isFull = false;      ///< held, and what its user has waiting here leaves no room for more
    std::optional<std::string> m_lostReason;
    std::string m_goodbye;           ///< what the server said of the end that is to come
    comm::TimeNs m_batchWritten = 0; ///< when bytes had left last, as the last batch ended
    std::uint64_t m_bytesRead = 0;
    std::int64_t m_uid = -1; ///< whose account what is kept is counted in
    std::size_t m_kept = 0;
    std::size_t m_standing = 0; ///< of that, since there is no room for a message that begins
    std::vector<Awaited> m_awaited;
};

} // namespace kesa::commadapter

#endif
