#ifndef KESA_COMMADAPTER_PROTOCOL_TURNQUEUE_H
#define KESA_COMMADAPTER_PROTOCOL_TURNQUEUE_H

#include "protocol/Frame.h"
#include "protocol/Gathering.h"

#include <kesa/Payload.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <unordered_map>
#include <vector>

namespace kesa::commadapter::protocol {

/// Messages of more than one frame, one of each stream. Those that have joined take turns by fragments,
/// `MAX_INTERLEAVED` of them at a time, and no more than together have `mostUnderWay` bytes, but for one. What their
/// streams have to send after them waits with them.
class TurnQueue {
public:
    struct Message {
        Kind kind = Kind::eNEXT;
        std::uint32_t target = 0;
        std::vector<unsigned char> head;
        Payload body;
        bool isPersistent = false;

        std::size_t content() const noexcept { return head.size() + body.size(); }
        bool isLarge() const noexcept { return content() > FRAME_BYTES; }
        std::size_t wireBytes() const noexcept;
        std::size_t requestCost() const noexcept { return kind == Kind::eREQUEST ? costOf(content()) : 0; }
    };

    bool isEmpty() const noexcept { return m_lanes.empty(); }
    /// Whether `stream` has a message here: what it says next has to wait behind it.
    bool has(std::uint32_t stream) const { return !m_lanes.empty() && find(stream) != nullptr; }
    /// Whether what leaves first of the stream's is of `kind`.
    bool isNext(std::uint32_t stream, Kind kind) const;
    /// True: it is the stream's first one here, a large one that does not leave before `join`.
    bool push(std::uint32_t stream, Message&& message);
    void join(std::uint32_t stream);

    enum class Dropped {
        eNOTHING,
        eFOLLOWERS, ///< only what waits behind the stream's first message
        eFIRST,     ///< that, too: see `takeFollower`
        eUNJOINED,  ///< the same, and it had not joined
    };
    /// Drops the messages of `stream` and `kind` of which no byte has been written.
    Dropped drop(std::uint32_t stream, Kind kind);
    /// After the stream's first message has left or was dropped: takes the next one that fits into a frame. When there
    /// is none, a large one that follows is the stream's first, not joined, and without one the stream has nothing
    /// here.
    std::optional<Message> takeFollower(std::uint32_t stream);

    std::size_t bytes() const noexcept { return m_queued; }
    std::size_t persistentBytes() const noexcept { return m_persistent; }
    /// What the requests here take of their window; one counts as a whole until it has left.
    std::size_t requestCost() const noexcept { return m_requestCost; }
    std::size_t bytes(std::uint32_t stream) const;

    // ---- leaving ----------------------------------------------------------------------------------------------

    void setMostUnderWay(std::size_t bytes) noexcept { m_mostUnderWay = bytes; }
    /// How many fragments one gathering has at most.
    static constexpr std::size_t GATHERED_FRAGMENTS = 16;

    /// Nothing has joined.
    bool isIdle() const noexcept { return m_ring.empty(); }
    /// The fragment that is written is not finished: nothing else may leave before its rest.
    bool isInsideFragment() const noexcept;
    /// What one fragment gave.
    struct Fragment {
        std::size_t bytes;
        bool isLast; ///< of its message: what comes after it is only known once it has left
    };
    /// Adds the `number`th fragment from now on, counted from 0. Not while idle.
    Fragment gather(Gathering& gathering, std::size_t number);
    /// What has come to an end.
    struct Finished {
        bool isFragment = false;
        std::optional<std::uint32_t> stream; ///< its first message has left: see `takeFollower`
    };
    /// `size` bytes of one fragment, the next one, have left.
    Finished sent(std::size_t size);

private:
    struct Lane {
        std::uint32_t stream = 0;
        Message message;
        std::size_t written = 0;  ///< bytes of its frames, headers included
        std::size_t gathered = 0; ///< the same, counting what the last gathering gave out
        std::deque<Message> followers;
        std::size_t followerBytes = 0;
        bool hasJoined = false;
    };

    const Lane* find(std::uint32_t stream) const;
    void uncount(const Message& message) noexcept;
    std::size_t countActive() const noexcept;
    bool dropFollowers(Lane& lane, Kind kind);

    std::unordered_map<std::uint32_t, Lane> m_lanes; ///< by stream
    std::vector<Lane*> m_ring;                       ///< whose turn it is stands in front
    std::size_t m_mostUnderWay = SIZE_MAX;
    std::size_t m_queued = 0;
    std::size_t m_persistent = 0;
    std::size_t m_requestCost = 0;
    std::array<std::array<unsigned char, HEADER_BYTES>, GATHERED_FRAGMENTS> m_headers{}; ///< of the last gathering
};

} // namespace kesa::commadapter::protocol

#endif
