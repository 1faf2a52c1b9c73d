#ifndef KESA_COMMADAPTER_PROTOCOL_SENDQUEUE_H
#define KESA_COMMADAPTER_PROTOCOL_SENDQUEUE_H

#include "protocol/ByteQueue.h"
#include "protocol/Frame.h"

#include <kesa/Payload.h>

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <unordered_map>
#include <vector>

namespace kesa::commadapter::protocol {

/// Encoded messages on their way out, and the order in which they leave.
///
/// Messages of one frame stand in one line, their bytes one after the other in one buffer, so that many of them are
/// one `iovec`. A larger message waits in that line until what was written before it has left; then it joins the ring,
/// whose members take turns by fragments, and between two fragments the line may send as much as one fragment holds.
/// What is written for its stream meanwhile waits with it: that keeps the order of each stream.
class SendQueue {
public:
    // ---- writing a message ------------------------------------------------------------------------------------

    /// Where the next message's head is encoded, behind `HEADER_BYTES` that are filled in by `push`.
    ByteQueue& begin()
    {
        m_bytes.extend(HEADER_BYTES);
        return m_bytes;
    }
    /// Forgets what was encoded since `begin`.
    void abandon() { m_bytes.truncate(m_lineBytes); }
    /// Queues what was encoded since `begin`, followed by `body`.
    void push(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent = false);
    /// Queues a message of nothing but a header.
    void push(Kind kind, std::uint32_t stream, std::uint32_t target);

    // ---- taking back ------------------------------------------------------------------------------------------

    /// Drops the messages of `stream` and `kind` of which no byte has been written. Answers whether there were any.
    bool drop(std::uint32_t stream, Kind kind);

    std::size_t bytes() const noexcept { return m_queued; }
    /// Of messages pushed as persistent. One in the line counts as a whole until it has left.
    std::size_t persistentBytes() const noexcept { return m_persistent; }
    std::size_t bytes(std::uint32_t stream);
    /// How many bytes will have been sent once all that is queued has.
    std::uint64_t end() const noexcept { return m_sent + m_queued; }
    /// Whether a byte of the message of `stream` and `kind` is still queued. `endThen`: what `end` was right after it
    /// was pushed; when as much has been sent, the line is not searched.
    bool holds(std::uint32_t stream, Kind kind, std::uint64_t endThen);
    bool hasPing() const noexcept { return m_hasPing; }
    bool hasPong() const noexcept { return m_hasPong; }

    // ---- leaving ----------------------------------------------------------------------------------------------

    std::size_t gather(std::span<iovec> out);
    void sent(std::size_t size);

private:
    /// One place in the line: a message of one frame, or where a larger one waits.
    struct Entry {
        std::uint32_t stream;
        std::uint32_t bytes;      ///< of it in `m_bytes`
        std::uint32_t body;       ///< of it in `m_bodies`, when it was too large to copy
        std::uint32_t bodyNumber; ///< its number, counted from when the queue was made; may overflow
        std::uint32_t previous;   ///< so many entries before this one is another of the stream; 0: none is known
        Kind kind;
        bool isDropped;
        bool isLarge; ///< the message is its stream's lane
        bool isPersistent;

        std::size_t size() const noexcept { return std::size_t{bytes} + body; }
    };
    /// A message outside of the line.
    struct Message {
        Kind kind = Kind::eNEXT;
        std::uint32_t target = 0;
        std::vector<unsigned char> head;
        Payload body;
        bool isPersistent = false;

        std::size_t content() const noexcept { return head.size() + body.size(); }
        bool isLarge() const noexcept { return content() > FRAME_BYTES; }
        std::size_t wireBytes() const noexcept;
    };
    /// A larger message, with what its stream has to send after it.
    struct Lane {
        std::uint32_t stream = 0;
        Message message;
        std::size_t written = 0; ///< bytes of its frames, headers included
        std::size_t planned = 0; ///< the same, counting what the last `gather` gave out
        std::deque<Message> followers;
        std::size_t followerBytes = 0;
        bool isInRing = false;
    };
    /// What one stretch of the last `gather` was; `lane` null: the line.
    struct Step {
        Lane* lane;
        std::size_t bytes;
    };
    struct Plan;

    Lane* laneOf(std::uint32_t stream);
    void pushLine(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent);
    void count(std::size_t size, bool isPersistent) noexcept;
    void uncount(std::size_t size, bool isPersistent) noexcept;
    void pushLane(Lane& lane);
    /// A lane's message has left or was dropped: what waited with it moves up.
    void advance(Lane& lane);
    // SendQueue_drop.cpp
    bool dropFromLane(Lane& lane, Kind kind);
    bool dropFromLine(std::uint32_t stream, Kind kind);
    void dropEntry(Entry& entry);
    void compact();
    bool isInLine(std::uint32_t stream, Kind kind);

    void activate();
    void planLine(Plan& plan, std::size_t limit);
    void planFragment(Plan& plan, Lane& lane, unsigned char* header);
    void sentLine(std::size_t size);
    void sentLane(Lane& lane, std::size_t size);
    void popFront();

    /// Entries are numbered in the order they came; compacting gives new numbers.
    Entry& entryAt(std::uint64_t number) noexcept { return m_entries[m_first + (number - m_firstNumber)]; }
    void account();
    void unaccount(const Entry& entry);

    // The line. Entries and bodies before `m_first` and `m_firstBody` have left.
    ByteQueue m_bytes;
    std::size_t m_lineBytes = 0; ///< of `m_bytes`, without a message that is being encoded
    std::vector<Entry> m_entries;
    std::size_t m_first = 0;
    std::uint64_t m_firstNumber = 0; ///< number of the one at `m_first`
    std::deque<Payload> m_bodies;
    std::uint32_t m_firstBody = 0;  ///< number of the first of them
    std::size_t m_frontWritten = 0; ///< bytes of the first entry
    std::size_t m_droppedBytes = 0; ///< held by entries that are dropped and still there

    std::unordered_map<std::uint32_t, Lane> m_lanes; ///< by stream
    std::vector<Lane*> m_ring;
    std::size_t m_credit = FRAME_BYTES; ///< bytes the line may send before the ring's turn

    std::size_t m_queued = 0;
    std::uint64_t m_sent = 0; ///< bytes, ever
    std::size_t m_persistent = 0;
    bool m_hasPing = false;
    bool m_hasPong = false;

    static constexpr std::size_t GATHERED_FRAGMENTS = 16;
    std::vector<Step> m_steps;                                                           ///< of the last `gather`
    std::array<std::array<unsigned char, HEADER_BYTES>, GATHERED_FRAGMENTS> m_headers{}; ///< of its fragments

    // What each stream has in the line, brought up to date when asked for: nobody asks while the queue does not grow.
    struct Account {
        std::size_t bytes = 0;
        std::uint64_t last = 0; ///< number of its last entry
    };
    std::unordered_map<std::uint32_t, Account> m_perStream;
    std::size_t m_accounted = 0; ///< entries, from `m_first` on
};

} // namespace kesa::commadapter::protocol

#endif
