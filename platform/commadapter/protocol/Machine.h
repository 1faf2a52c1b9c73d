#ifndef KESA_COMMADAPTER_PROTOCOL_MACHINE_H
#define KESA_COMMADAPTER_PROTOCOL_MACHINE_H

#include <comm/Clock.h>
#include <kesa/Request.h>
#include <kesa/Response.h>
#include <obr/UUID.h>

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::commadapter::protocol {

/// How a process introduces itself on a connection.
struct Hello {
    std::uint16_t lowestVersion = 1;
    std::uint16_t highestVersion = 1;
    std::string process;
    std::string realm;
    obr::UUID instance; ///< differs for each start of a process
    std::vector<std::string> listeners;
    std::uint32_t maxMessageBytes = 16U << 20U; ///< of a peer; the own one is that of the own `Limits`
};

/// How the reason begins why a connection between processes of different versions ends.
inline constexpr std::string_view NO_COMMON_VERSION = "no common protocol version";
/// The same of a peer that has not introduced itself in time.
inline constexpr std::string_view NO_HELLO = "no hello within";

struct Limits {
    std::uint32_t maxMessageBytes = 16U << 20U; ///< of one message, head and body
    std::uint32_t maxHeadBytes = 60U << 10U;
    std::uint32_t maxPartialMessages = 64; ///< fragmented messages under way at once from the peer
    comm::TimeNs helloTimeout = 3 * comm::SECOND;
    comm::TimeNs heartbeat = 5 * comm::SECOND; ///< how long a probed peer may stay silent
};

/// What a `Machine` reads out of the bytes, in the order they came. Called from `Machine::received`, on the loop.
/// Arguments are the receiver's. A callback may issue commands on the same machine, but neither feed nor destroy it.
class IMachineListener {
public:
    virtual ~IMachineListener() = default;
    virtual void onHello(const Hello& peer) = 0;

    // Heard by the side that serves.
    virtual void onAttach(std::uint32_t target, std::string path) = 0;
    virtual void onDetach(std::uint32_t target) = 0; ///< the client is no longer interested
    /// `isPersistent`: it asks for a stream that lasts, else it is a call, with an answer or a few.
    virtual void onRequest(std::uint32_t stream, std::uint32_t target, Request request, bool isPersistent) = 0;
    virtual void onCancel(std::uint32_t stream) = 0;

    // Heard by the side that asks.
    virtual void onAttached(std::uint32_t target) = 0;
    virtual void onDetached(std::uint32_t target) = 0;
    virtual void onNext(std::uint32_t stream, Response response) = 0;
    virtual void onError(std::uint32_t stream, Response error) = 0;
    virtual void onCompleted(std::uint32_t stream) = 0;
};

/// The protocol on one connection, without I/O: bytes, deadlines and commands in; bytes, callbacks and the next
/// deadline out. `docs/protocol.md` gives the bytes. Client and server differ only in which messages they accept.
///
/// Threads: two halves that may run at the same time. The input half (`inputBuffer`, `received`) belongs to the loop.
/// The output half (commands, `gather`, `sent`, deadlines) is guarded by a lock of the owner's, held around every
/// call of it; the input half does not need that lock, and answers a ping through `takePongsOwed`. `hold`, `release`
/// and `isHeld` may be called from any thread, also inside a callback.
class Machine {
public:
    enum class Role { eCLIENT, eSERVER };
    enum class Sent {
        eQUEUED,
        eTOO_LARGE, ///< larger than either side's limit: nothing was queued
        eINVALID,   ///< text that is not UTF-8, or a header that cannot be written: nothing was queued
    };
    enum class Cancelled {
        eASKED,      ///< the peer is asked; its completed or error still comes and frees the stream
        eNEVER_SENT, ///< the request was taken back before its first byte left: the stream is over, nothing will come
    };

    /// Queues the own hello. `listener` outlives the machine.
    Machine(Role role, const Hello& own, const Limits& limits, IMachineListener& listener, comm::TimeNs now);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // ---- input half -------------------------------------------------------------------------------------------

    /// Where the next bytes belong, never empty unless held: a large body is read straight into its block, which grows
    /// with what arrives, or has arrived before, not by what was declared.
    std::span<unsigned char> inputBuffer();
    /// `size` bytes were put at the start of the last `inputBuffer`. True: the peer broke the protocol, `reason` says
    /// how, and the connection must be closed; nothing is called any more.
    [[nodiscard]] bool received(std::size_t size, comm::TimeNs now);
    /// Handles what a hold has left of what was received, as `received` would have.
    [[nodiscard]] bool readOn();
    const std::string& reason() const noexcept;
    /// What "$client-id" reads in the requests that arrive from now on, whatever the sender wrote there; usually set in
    /// `onHello`. Costs nothing per request, unlike `Request::setHeader`.
    void setClientId(std::string id);
    /// Pongs to be sent, since the last question: the owner takes its lock and calls `pong` that often.
    unsigned takePongsOwed() noexcept;
    /// How many pongs have come.
    std::uint64_t pongs() const noexcept;

    // ---- holding back -----------------------------------------------------------------------------------------

    /// From the next frame on nothing is handled, in the order it came, until `release` and then `readOn`. The owner
    /// reads nothing meanwhile, so it waits at the peer.
    void hold() noexcept;
    void release() noexcept;
    bool isHeld() const noexcept;

    // ---- output half ------------------------------------------------------------------------------------------

    /// What is refused is the path of no service: more than 4096 bytes, or not UTF-8.
    Sent attach(std::uint32_t target, std::string_view path);
    void attached(std::uint32_t target);
    /// From the server: the path is gone. From the client: no more interest in it.
    void detached(std::uint32_t target);
    [[nodiscard]] Sent request(std::uint32_t stream, std::uint32_t target, const Request& request);
    [[nodiscard]] Sent next(std::uint32_t stream, const Response& response, bool isPersistent = false);
    /// What `next` would answer.
    [[nodiscard]] Sent tryNext(const Response& response);
    /// What is wrong with the message that was refused last, as the end of a sentence.
    const std::string& refusal() const noexcept;
    /// An error whose text does not fit is sent without it.
    void error(std::uint32_t stream, const Response& response);
    void completed(std::uint32_t stream);
    /// Takes back what is queued of that stream and not yet begun to be written; a message begun is finished, and the
    /// cancel follows it.
    [[nodiscard]] Cancelled cancel(std::uint32_t stream);
    /// Drops the queued, not yet begun values of a stream that is being ended by the serving side.
    void dropQueued(std::uint32_t stream);
    void ping();
    void pong();

    /// Bytes queued and not yet sent.
    std::size_t queuedBytes() const noexcept;
    /// Those of values of persistent streams; one that has begun to leave may count as a whole.
    std::size_t persistentBytes() const noexcept;
    /// Bytes queued for one stream.
    std::size_t queuedBytes(std::uint32_t stream) const;
    /// How many bytes will have been sent once all that is queued has.
    std::uint64_t queueEnd() const noexcept;
    /// Whether a byte of a stream's request is still queued. `endThen`: what `queueEnd` was right after `request`; it
    /// spares a search for nearly all that have been sent.
    bool isUnsent(std::uint32_t stream, std::uint64_t endThen);
    /// Fills `out` with what is to be written next and returns how many entries; 0: nothing is queued. Valid until the
    /// next call of the output half.
    std::size_t gather(std::span<iovec> out);
    /// `size` bytes of the last `gather` were written.
    void sent(std::size_t size, comm::TimeNs now);

    // ---- deadlines (output half) ------------------------------------------------------------------------------

    /// Sends a ping unless one is under way: something is owed, and the peer has to show that it lives.
    void probe(comm::TimeNs now);
    /// When `expired` has to be asked next; `comm::NEVER` when nothing is awaited.
    comm::TimeNs nextDeadline() const noexcept;
    /// True: no hello in time, or no byte since the probe; `why` is set. Before asking, the owner reads what is there.
    bool expired(comm::TimeNs now, std::string& why) const;
    /// The loop itself did not run for a while: every deadline starts anew.
    void restartDeadlines(comm::TimeNs now);
    /// When the last byte came in.
    comm::TimeNs lastReceived() const noexcept;

private:
    struct Shared;
    class Input;
    class Output;
    std::unique_ptr<Shared> m_shared;
    std::unique_ptr<Input> m_input;
    std::unique_ptr<Output> m_output;
};

} // namespace kesa::commadapter::protocol

#endif
