#ifndef KESA_COMMADAPTER_PROTOCOL_INPUT_H
#define KESA_COMMADAPTER_PROTOCOL_INPUT_H

#include "protocol/Body.h"
#include "protocol/Frame.h"
#include "protocol/Head.h"
#include "protocol/Hello.h"
#include "protocol/IMachineListener.h"
#include "protocol/Limits.h"
#include "protocol/ReceiveBlock.h"
#include "protocol/Shared.h"
#include "protocol/TimeSlice.h"

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kesa::commadapter::protocol {

/// Reads frames. Small ones are taken out of one receive buffer; the body of a larger one is read straight into its
/// block: `m_current` then says which, and `buffer` leads there until the frame is complete.
/// On the loop.
class Input {
public:
    Input(Role role, const Hello& own, const Limits& limits, IMachineListener& listener, Shared& shared);

    /// Where the next bytes belong, never empty unless paused or waiting: a large body is read straight into its
    /// block, which grows with what arrives, or has arrived before, not by what was declared.
    std::span<unsigned char> buffer();
    /// `size` bytes were put at the start of the last `buffer`. True: the peer broke the protocol, `reason` says how,
    /// and the connection must be closed; nothing is called any more. `until`: when it leaves the rest to `readOn`.
    [[nodiscard]] bool received(std::size_t size, comm::TimeNs now, comm::TimeNs until = comm::NEVER);
    /// Handles what `until` or a lack of room has left of what was received, as `received` would have.
    [[nodiscard]] bool readOn(comm::TimeNs until = comm::NEVER)
    {
        return m_hasFailed || readFrames(comm::now(), until);
    }
    /// What `buffer` leads to is not used before it is asked for again: between batches nothing is kept for a
    /// connection of which nothing has come in part.
    void giveBufferBack() noexcept;
    /// Bytes that were received and are not handled: at least the beginning of a message.
    bool hasUnhandled() const noexcept { return m_end > m_begin; }
    std::size_t unhandled() const noexcept { return m_end - m_begin; }
    /// `until` has come: there may be whole messages left. The owner reads nothing before `readOn`.
    bool isPaused() const noexcept { return m_isPaused; }
    /// There is no room for a message that begins next, see `IMachineListener::onLarge`. The owner reads nothing, and
    /// calls `readOn` when there may be.
    bool isWaiting() const noexcept { return m_isWaiting; }
    /// Of messages that have begun and are not complete, in the size that was declared.
    std::size_t unfinishedBytes() const noexcept { return m_unfinishedBytes; }
    const std::string& reason() const noexcept { return m_reason; }
    /// What "$client-id" reads in the requests that arrive from now on, whatever the sender wrote there; usually set in
    /// `onHello`. Costs nothing per request, unlike `Request::setHeader`.
    void setClientId(std::string id) { m_clientId = std::make_shared<const std::string>(std::move(id)); }
    /// Pongs to be sent, since the last question: the owner takes its lock and calls `pong` that often.
    unsigned takePongsOwed() noexcept { return m_shared.pongsOwed.exchange(0, std::memory_order_relaxed); }
    /// How many pongs have come.
    std::uint64_t pongs() const noexcept { return m_pongs; }
    /// When the last byte came in.
    comm::TimeNs lastReceived() const noexcept { return m_shared.lastReceived.load(std::memory_order_relaxed); }

private:
    /// A message with a larger body, part of which has arrived.
    struct Partial {
        FrameHeader header; ///< of its first frame
        Head head;          ///< views into `source`'s bytes
        std::shared_ptr<HeaderSource> source;
        Body body;

        std::size_t bytes() const noexcept { return header.head + body.declared(); }
    };

    [[nodiscard]] bool readFrames(comm::TimeNs now, comm::TimeNs until);
    /// True: no further frame can be taken out of the buffer now.
    [[nodiscard]] bool readFrame(bool& failed);
    [[nodiscard]] bool checkHeader(const FrameHeader& header);
    [[nodiscard]] bool checkFragment(const FrameHeader& header);
    [[nodiscard]] bool handle(const FrameHeader& header, const unsigned char* content);
    [[nodiscard]] bool handleHello(const FrameHeader& header, const unsigned char* content);
    [[nodiscard]] bool handleGoodbye(const FrameHeader& header, const unsigned char* content);
    [[nodiscard]] bool handleAttach(const FrameHeader& header, const unsigned char* content);
    [[nodiscard]] bool handleMessage(const FrameHeader& header, const unsigned char* content);
    [[nodiscard]] bool readMessageHead(const FrameHeader& header, const unsigned char* content, Head& head);
    /// Takes up a larger message, or the next fragment of one, with the part of its body that is there.
    [[nodiscard]] bool handlePartial(const FrameHeader& header, const unsigned char* content, std::size_t size);
    /// `isWhole`: its only frame is there. `isLater`: nothing has been taken, and there is no room.
    [[nodiscard]] bool begin(const FrameHeader& header, const unsigned char* content, bool isWhole, bool& isLater);
    [[nodiscard]] bool endOfFrame();
    void deliver(const FrameHeader& header, const Head& head, Payload payload, std::shared_ptr<HeaderSource> source);
    bool needsSource(const FrameHeader& header, const Head& head) const noexcept;
    [[nodiscard]] bool fail(std::string reason);

    const Role m_role;
    const Hello m_own;
    const Limits m_limits;
    IMachineListener& m_listener;
    Shared& m_shared;
    std::shared_ptr<const std::string> m_clientId;

    ReceiveBlock m_block;
    std::size_t m_begin = 0; // unread bytes of m_block
    std::size_t m_end = 0;

    std::map<std::uint32_t, Partial> m_partials; // by stream
    std::size_t m_unfinishedBytes = 0;           // of `m_partials`
    Partial* m_current = nullptr;                // whose frame is being read into its body
    std::size_t m_remaining = 0;                 // of that frame
    bool m_currentHasMore = false;
    /// The largest that has arrived whole. As much is kept at once for the next one, but for one at a time.
    std::size_t m_largestBody = 0;

    /// The head read last: on a busy stream the next one is often the same.
    struct KnownHead {
        std::vector<unsigned char> bytes;
        Head head; ///< views into `bytes`
    };
    [[nodiscard]] bool readKnownHead(const FrameHeader& header, const unsigned char* content);
    KnownHead m_known;

    TimeSlice m_slice;
    bool m_isPaused = false;
    bool m_isWaiting = false;
    std::uint64_t m_pongs = 0;
    bool m_hasHello = false;
    bool m_hasFailed = false;
    std::string m_reason;
};

} // namespace kesa::commadapter::protocol

#endif
