#ifndef KESA_COMMADAPTER_PROTOCOL_FRAMEQUEUE_H
#define KESA_COMMADAPTER_PROTOCOL_FRAMEQUEUE_H

#include "protocol/ByteQueue.h"
#include "protocol/Frame.h"
#include "protocol/Gathering.h"

#include <kesa/Payload.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

namespace kesa::commadapter::protocol {

/// Messages of one frame, in the order in which they leave. Their bytes stand one after the other in one buffer, so
/// that many of them are one `iovec`. A larger message may keep a place among them: nothing behind it leaves before the
/// place has been taken.
class FrameQueue {
public:
    // ---- writing a message ------------------------------------------------------------------------------------

    /// Where the next message's head is encoded, behind `HEADER_BYTES` that are filled in by `push`.
    ByteQueue& begin()
    {
        m_bytes.extend(HEADER_BYTES);
        return m_bytes;
    }
    /// The head that was encoded since `begin`.
    std::span<const unsigned char> head() const noexcept
    {
        return {m_bytes.data() + m_frameBytes + HEADER_BYTES, m_bytes.size() - m_frameBytes - HEADER_BYTES};
    }
    /// Forgets what was encoded since `begin`.
    void abandon() { m_bytes.truncate(m_frameBytes); }
    /// Queues what was encoded since `begin`, followed by `body`; together `FRAME_BYTES` at most.
    void push(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent);
    /// Keeps the place of a larger message of `stream`, which has no other one.
    void pushPlace(std::uint32_t stream);

    // ---- taking back ------------------------------------------------------------------------------------------

    /// Drops the messages of `stream` and `kind` of which no byte has been written. Answers whether there were any.
    bool drop(std::uint32_t stream, Kind kind);
    void dropPlace(std::uint32_t stream);

    std::size_t bytes() const noexcept { return m_queued; }
    /// Of messages pushed as persistent; one counts as a whole until it has left.
    std::size_t persistentBytes() const noexcept { return m_persistent; }
    /// What the requests here take of their window; one counts as a whole until it has left.
    std::size_t requestCost() const noexcept { return m_requestCost; }
    std::size_t bytes(std::uint32_t stream);
    /// Whether a byte of the message of `stream` and `kind` is still queued: a search.
    bool contains(std::uint32_t stream, Kind kind);
    bool hasPing() const noexcept { return m_hasPing; }
    bool hasPong() const noexcept { return m_hasPong; }

    // ---- leaving ----------------------------------------------------------------------------------------------

    /// Nothing stands here, not even a place.
    bool isEmpty() const noexcept { return m_first == m_entries.size(); }
    /// The stream whose place stands in front; the place is given up.
    std::optional<std::uint32_t> takePlace()
    {
        return m_frontWritten == 0 && !isEmpty() && m_entries[m_first].isNoFrame() ? takeFrontPlace() : std::nullopt;
    }

    /// How far gathering has come.
    struct Cursor {
        std::size_t entry;
        std::size_t written; ///< of the entry
        std::size_t offset = 0;
        std::size_t body = 0;
    };
    Cursor front() const noexcept { return {m_first, m_frontWritten}; }
    /// Adds frames up to the next place, whole ones until they are `limit` bytes or more. Answers their bytes.
    std::size_t gather(Gathering& gathering, Cursor& cursor, std::size_t limit) const;
    /// `size` bytes from the front have left.
    void sent(std::size_t size);

private:
    struct Entry {
        std::uint32_t stream;
        std::uint32_t bytes;      ///< of it in `m_bytes`
        std::uint32_t body;       ///< of it in `m_bodies`, when it was too large to copy
        std::uint32_t bodyNumber; ///< its number, counted from when the queue was made; may overflow
        std::uint32_t previous;   ///< so many entries before this one is another of the stream; 0: none is known
        Kind kind;
        bool isDropped;
        bool isPlace; ///< of a larger message; no frame itself
        bool isPersistent;

        std::size_t size() const noexcept { return std::size_t{bytes} + body; }
        std::size_t requestCost() const noexcept { return kind == Kind::eREQUEST ? costOf(size() - HEADER_BYTES) : 0; }
        bool isNoFrame() const noexcept { return isDropped || isPlace; }
    };

    std::optional<std::uint32_t> takeFrontPlace();
    std::size_t popFront();
    void giveBack(std::size_t bytes);
    // FrameQueue_drop.cpp
    void dropEntry(Entry& entry);
    void compactIfWorth();
    void compact();
    void account();
    void unaccount(const Entry& entry);

    /// Entries are numbered in the order they came; compacting gives new numbers.
    Entry& entryAt(std::uint64_t number) noexcept { return m_entries[m_first + (number - m_firstNumber)]; }

    // Entries and bodies before `m_first` and `m_firstBody` have left.
    ByteQueue m_bytes;
    std::size_t m_frameBytes = 0; ///< of `m_bytes`, without a message that is being encoded
    std::vector<Entry> m_entries;
    std::size_t m_first = 0;
    std::uint64_t m_firstNumber = 0; ///< number of the one at `m_first`
    std::deque<Payload> m_bodies;
    std::uint32_t m_firstBody = 0;  ///< number of the first of them
    std::size_t m_frontWritten = 0; ///< bytes of the first entry
    std::size_t m_droppedBytes = 0; ///< held by entries that are dropped and still there

    std::size_t m_queued = 0;
    std::size_t m_persistent = 0;
    std::size_t m_requestCost = 0;
    bool m_hasPing = false;
    bool m_hasPong = false;

    // What each stream has here, brought up to date when asked for: nobody asks while the queue does not grow.
    struct Account {
        std::size_t bytes = 0;
        std::uint64_t last = 0; ///< number of its last entry
    };
    std::unordered_map<std::uint32_t, Account> m_perStream;
    std::size_t m_accounted = 0; ///< entries, from `m_first` on
};

} // namespace kesa::commadapter::protocol

#endif
