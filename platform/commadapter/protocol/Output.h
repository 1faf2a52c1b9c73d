#ifndef KESA_COMMADAPTER_PROTOCOL_OUTPUT_H
#define KESA_COMMADAPTER_PROTOCOL_OUTPUT_H

#include "protocol/Head.h"
#include "protocol/Hello.h"
#include "protocol/Limits.h"
#include "protocol/SendQueue.h"
#include "protocol/Shared.h"

#include <sys/uio.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kesa::commadapter::protocol {

enum class Sent {
    eQUEUED,
    eTOO_LARGE, ///< larger than either side's limit: nothing was queued
    eINVALID,   ///< text that is not UTF-8, or a header that cannot be written: nothing was queued
};
enum class Cancelled {
    eASKED,      ///< the peer is asked; its completed or error still comes and frees the stream
    eNEVER_SENT, ///< the request was taken back before its first byte left: the stream is over, nothing will come
};

/// Encodes messages into the queue, and watches the deadlines. The owner's lock is held around every call.
class Output {
public:
    /// Queues the own hello.
    Output(Role role, const Hello& own, const Limits& limits, Shared& shared, comm::TimeNs now);

    /// What is refused is the path of no service: more than 4096 bytes, or not UTF-8.
    Sent attach(std::uint32_t target, std::string_view path);
    void attached(std::uint32_t target) { m_queue.push(Kind::eATTACHED, 0, target); }
    /// From the server: the path is gone. From the client: no more interest in it.
    void detached(std::uint32_t target) { m_queue.push(Kind::eDETACHED, 0, target); }
    [[nodiscard]] Sent request(std::uint32_t stream, std::uint32_t target, const Request& request);
    [[nodiscard]] Sent next(std::uint32_t stream, const Response& response, bool isPersistent = false)
    {
        return answer(Kind::eNEXT, stream, response, isPersistent);
    }
    /// What `next` would answer.
    [[nodiscard]] Sent tryNext(const Response& response);
    /// What is wrong with the message that was refused last, as the end of a sentence.
    const std::string& refusal() const noexcept { return m_refusal; }
    /// An error whose text does not fit is sent without it.
    void error(std::uint32_t stream, const Response& response);
    void completed(std::uint32_t stream) { m_queue.push(Kind::eCOMPLETED, stream, 0); }
    /// From the client: so many bytes of the stream's values have been handled. See `Windows` in docs/protocol.md.
    void credit(std::uint32_t stream, std::size_t bytes) { pushBytes(Kind::eCREDIT, stream, bytes); }
    /// At the server: what that brings. The values that waited for it are queued, and then the stream's end if that
    /// waited with them.
    StreamWindows::Given takeCredit(std::uint32_t stream, std::size_t bytes)
    {
        return m_queue.takeCredit(stream, bytes);
    }
    /// From the server: so many bytes of requests have been handled.
    void requestCredit(std::size_t bytes) { pushBytes(Kind::eREQUEST_CREDIT, 0, bytes); }
    /// At the client: what that brings. The requests that waited for it are queued. True: it is more than the requests
    /// that have left took, and counts for nothing.
    [[nodiscard]] bool takeRequestCredit(std::size_t bytes) { return m_queue.takeRequestCredit(bytes); }
    /// Whether values of the stream wait for credit, and perhaps its end behind them: then its number is in use.
    bool isWaiting(std::uint32_t stream) const { return m_queue.isWaiting(stream); }
    /// Takes back what is queued of that stream and not yet begun to be written; a message begun is finished, and the
    /// cancel follows it.
    [[nodiscard]] Cancelled cancel(std::uint32_t stream);
    /// Drops the queued, not yet begun values of a stream that is being ended by the serving side, and those that wait.
    void dropQueued(std::uint32_t stream)
    {
        m_queue.drop(stream, Kind::eNEXT);
        m_queue.dropWaiting(stream);
    }
    /// Drops only those that wait for credit.
    void dropWaiting(std::uint32_t stream) { m_queue.dropWaiting(stream); }
    /// What has no form on the wire is not said.
    void goodbye(std::string_view reason);
    void ping() { m_queue.push(Kind::ePING, 0, 0); }
    void pong();

    /// Bytes queued and not yet sent, without those that wait for credit.
    std::size_t queuedBytes() const noexcept { return m_queue.bytes(); }
    /// Values, at a server, or requests, at a client, that wait for credit.
    std::size_t waitingBytes() const noexcept { return m_queue.waitingBytes(); }
    /// All values of persistent streams that are here; one that has begun to leave may count as a whole.
    std::size_t persistentBytes() const noexcept { return m_queue.persistentBytes(); }
    /// Bytes queued for one stream.
    std::size_t queuedBytes(std::uint32_t stream) { return m_queue.bytes(stream); }
    /// How many bytes will have been sent once all that is queued has, the request of `stream` last; not known of one
    /// that waits for credit.
    std::uint64_t queueEnd(std::uint32_t stream) const
    {
        return m_queue.isRequestWaiting(stream) ? UINT64_MAX : m_queue.end();
    }
    /// Whether a byte of a stream's request is still queued. `endThen`: what `queueEnd` was right after `request`; it
    /// spares a search for nearly all that have been sent.
    bool isUnsent(std::uint32_t stream, std::uint64_t endThen)
    {
        return m_queue.contains(stream, Kind::eREQUEST, endThen);
    }
    /// Fills `out` with what is to be written next and returns how many entries; 0: nothing is queued. Valid until the
    /// next call.
    std::size_t gather(std::span<iovec> out)
    {
        m_queue.setMostUnderWay(largestMessage());
        return m_queue.gather(out);
    }
    /// `size` bytes of the last `gather` were written.
    void sent(std::size_t size, comm::TimeNs now);

    /// Sends a ping unless one is under way: something is owed, and the peer has to show that it lives.
    void probe(comm::TimeNs now);
    /// When `expired` has to be asked next; `comm::NEVER` when nothing is awaited.
    comm::TimeNs nextDeadline() const noexcept;
    /// True: no hello in time, or no byte since the probe; `why` is set. Before asking, the owner reads what is there.
    bool expired(comm::TimeNs now, std::string& why) const;
    /// The loop itself did not run for a while: every deadline starts anew.
    void restartDeadlines(comm::TimeNs now);

private:
    [[nodiscard]] Sent answer(Kind kind, std::uint32_t stream, const Response& response, bool isPersistent = false);
    void pushBytes(Kind kind, std::uint32_t stream, std::size_t bytes);
    [[nodiscard]] Sent finish(Kind kind, std::uint32_t stream, std::uint32_t target, HeadWriter& head,
                              const Payload& body, bool isPersistent = false);
    /// Completes the head, and judges the message by both sides' limits.
    [[nodiscard]] Sent close(HeadWriter& head, const Payload& body);
    const char* whoseLimit() const;
    /// That both sides take.
    std::size_t largestMessage() const noexcept
    {
        return std::min(m_limits.maxMessageBytes, m_shared.peerMaxMessageBytes.load(std::memory_order_relaxed));
    }
    bool isProbing() const noexcept;

    const Role m_role;
    const Limits m_limits;
    Shared& m_shared;
    SendQueue m_queue;
    std::string m_refusal; ///< of the last message that was not queued
    comm::TimeNs m_helloDeadline;
    comm::TimeNs m_probeDeadline = comm::NEVER;
    std::uint64_t m_receivedAtProbe = 0; ///< `receivedCount` then: it has grown when the peer showed that it lives
};

} // namespace kesa::commadapter::protocol

#endif
