#ifndef KESA_COMMADAPTER_TRANSPORT_MEMORYLINK_H
#define KESA_COMMADAPTER_TRANSPORT_MEMORYLINK_H

#include "transport/ITransport.h"
#include "transport/MemoryNetwork.h"

#include <comm/Reactor.h>

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kesa::commadapter::transport::memory {

struct Link;

/// What all streams of one network share; everything here and in the links is guarded by `lock`.
struct Streams {
    std::mutex lock;
    MemoryNetwork::Faults faults;
    std::vector<std::shared_ptr<Link>> links;        ///< those with an end somebody may still use, oldest first
    std::map<std::uint64_t, std::string> instances;  ///< by group, as its hellos have it
    std::map<std::uint64_t, std::uint64_t> deaths;   ///< of processes of the group
    std::map<std::uint64_t, std::uint64_t> repeated; ///< the group whose instance a group says instead
    std::map<std::uint64_t, std::int64_t> users;     ///< of groups that are not root's

    std::uint64_t draw(std::uint64_t bound) const { return faults.draw && bound > 0 ? faults.draw(bound) : 0; }
    bool happens(unsigned percent) const { return faults.draw && percent > 0 && faults.draw(100) < percent; }
};

/// One end of a stream, with the bytes that are on their way to it or wait to be read.
struct End {
    struct Chunk {
        comm::TimeNs arrival;
        std::string bytes;
    };

    // Weak: what is queued on a loop that never runs again must not keep that loop.
    std::weak_ptr<comm::Reactor> loop;
    std::uint64_t group = 0;
    IStreamListener* listener = nullptr;
    std::deque<Chunk> chunks;
    std::size_t taken = 0;        ///< of the first chunk
    std::size_t unread = 0;       ///< bytes in `chunks`, without those taken
    comm::TimeNs lastArrival = 0; ///< bytes and the end arrive in the order they were sent
    bool isOver = false;          ///< nothing comes after `chunks`, and nothing can be written
    std::string reason;           ///< of the end
    bool isEndRead = false;
    bool isPeerGone = false;   ///< to be told by `onPeerExited`
    bool hasPeerEnded = false; ///< the process at the other end
    bool wantsWrite = false;
    bool hasWritten = false; ///< its hello, with which each stream begins
    bool isReading = true;
    bool isClosed = false; ///< by its owner, or with its process
    bool isWoken = false;  ///< a look at it is queued on its loop
    bool hasTimer = false; ///< the same, for when the next bytes arrive
};

struct Link {
    std::array<End, 2> ends;
};

/// Of a group's process as it is now. The lock held.
PeerIdentity identityOf(const Streams& streams, std::uint64_t group);

/// The stream of `link.ends[side]`.
std::unique_ptr<IStream> makeStream(std::shared_ptr<Streams> streams, std::shared_ptr<Link> link, std::size_t side);

/// Closes one end as its owner or the end of its process does: the other side reads what was written, then the end.
/// `isHeldOpen`: a child of the process keeps its end, so the other side only learns that the process is gone.
void closeEnd(const std::shared_ptr<Streams>& streams, const std::shared_ptr<Link>& link, std::size_t side,
              const std::string& reason, bool isHeldOpen = false);

/// Breaks the link: each side loses a drawn part of what it has not read yet, and then sees the end.
void cutLink(const std::shared_ptr<Streams>& streams, const std::shared_ptr<Link>& link);

/// Queues a look at one end on its loop, which calls the listener if there is something to tell.
void wake(const std::shared_ptr<Streams>& streams, const std::shared_ptr<Link>& link, std::size_t side);

} // namespace kesa::commadapter::transport::memory

#endif
