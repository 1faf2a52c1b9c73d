#ifndef KESA_COMMADAPTER_PROTOCOL_SENDQUEUE_H
#define KESA_COMMADAPTER_PROTOCOL_SENDQUEUE_H

#include "protocol/FrameQueue.h"
#include "protocol/RequestWindow.h"
#include "protocol/StreamWindows.h"
#include "protocol/TurnQueue.h"

#include <kesa/Payload.h>

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kesa::commadapter::protocol {

/// Encoded messages on their way out, and the order in which they leave.
///
/// Messages of one frame stand in one queue. A larger message has a place there until what was written before it has
/// left; then it joins those that take turns by fragments, and between two fragments the frames may send as much as one
/// fragment holds. What is written for its stream meanwhile waits with it: that keeps the order of each stream. Values
/// of a persistent stream whose window is used up stand apart until there is credit, with what follows them; so do
/// requests.
class SendQueue {
public:
    // ---- writing a message ------------------------------------------------------------------------------------

    /// Where the next message's head is encoded.
    ByteQueue& begin() { return m_frames.begin(); }
    /// Forgets what was encoded since `begin`.
    void abandon() { m_frames.abandon(); }
    /// Queues what was encoded since `begin`, followed by `body`. Only values may be persistent.
    void push(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent = false);
    /// Queues a message of nothing but a header.
    void push(Kind kind, std::uint32_t stream, std::uint32_t target);

    // ---- taking back ------------------------------------------------------------------------------------------

    /// Drops the messages of `stream` and `kind` of which no byte has been written. Answers whether there were any.
    bool drop(std::uint32_t stream, Kind kind);
    /// The same of the stream's request; those that wait for credit may leave for it.
    bool dropRequest(std::uint32_t stream);

    /// Drops the values of `stream` that wait for credit; an end that waited behind them is queued.
    void dropWaiting(std::uint32_t stream);

    /// Of what may leave.
    std::size_t bytes() const noexcept { return m_frames.bytes() + m_turns.bytes(); }
    /// Of messages pushed as persistent, those that wait for credit with them. One of one frame counts as a whole until
    /// it has left.
    std::size_t persistentBytes() const noexcept
    {
        return m_frames.persistentBytes() + m_turns.persistentBytes() + m_windows.bytes();
    }
    std::size_t bytes(std::uint32_t stream)
    {
        return bytes() == 0 ? 0 : m_frames.bytes(stream) + m_turns.bytes(stream);
    }
    /// How many bytes will have been sent once all that is queued has.
    std::uint64_t end() const noexcept { return m_sent + bytes(); }
    /// Whether a byte of the message of `stream` and `kind` is still queued. `endThen`: what `end` was right after it
    /// was pushed; when as much has been sent, the frames are not searched.
    bool contains(std::uint32_t stream, Kind kind, std::uint64_t endThen)
    {
        return (m_sent < endThen || !m_turns.isEmpty() || !m_requests.isEmpty()) && search(stream, kind, endThen);
    }
    bool hasPing() const noexcept { return m_frames.hasPing(); }
    bool hasPong() const noexcept { return m_frames.hasPong(); }

    // ---- credit -----------------------------------------------------------------------------------------------

    void setStreamWindow(std::size_t bytes) noexcept { m_windows.setSize(bytes); }
    StreamWindows::Given takeCredit(std::uint32_t stream, std::size_t bytes);
    bool isWaiting(std::uint32_t stream) const { return m_windows.isWaiting(stream); }
    /// True: more than the requests that have left took.
    [[nodiscard]] bool takeRequestCredit(std::size_t bytes);
    bool isRequestWaiting(std::uint32_t stream) const { return m_requests.isWaiting(stream); }
    std::size_t waitingBytes() const noexcept { return m_windows.bytes() + m_requests.bytes(); }

    // ---- leaving ----------------------------------------------------------------------------------------------

    /// Of large messages, but for one.
    void setMostUnderWay(std::size_t bytes) noexcept { m_turns.setMostUnderWay(bytes); }
    std::size_t gather(std::span<iovec> out);
    void sent(std::size_t size);

private:
    /// What one stretch of the last `gather` was.
    struct Step {
        bool isFragment; ///< else frames
        std::size_t bytes;
    };

    void gatherFrames(Gathering& gathering, FrameQueue::Cursor& cursor, std::size_t limit);
    void sentFrames(std::size_t size);
    void sentFragment(std::size_t size);
    void moveUp(std::uint32_t stream);
    bool waitsForCredit(Kind kind, std::uint32_t stream, bool isPersistent);
    void pushRequest(std::uint32_t stream, std::uint32_t target, const Payload& body);
    void pushEncoded(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent);
    void pushLarge(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent);
    bool search(std::uint32_t stream, Kind kind, std::uint64_t endThen);
    void queueWaiting(std::uint32_t stream);
    void queueWaitingRequests();
    std::size_t unsentRequests() const noexcept { return m_frames.requestCost() + m_turns.requestCost(); }
    void queue(std::uint32_t stream, const TurnQueue::Message& message);

    FrameQueue m_frames;
    TurnQueue m_turns;
    StreamWindows m_windows;
    RequestWindow m_requests;
    std::size_t m_credit = FRAME_BYTES; ///< bytes of frames that may leave before the next fragment
    std::uint64_t m_sent = 0;           ///< bytes, ever
    std::vector<Step> m_steps;          ///< of the last `gather`
};

} // namespace kesa::commadapter::protocol

#endif
