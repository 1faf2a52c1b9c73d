#ifndef KESA_COMMADAPTER_PROTOCOL_INPUT_H
#define KESA_COMMADAPTER_PROTOCOL_INPUT_H

#include "protocol/Body.h"
#include "protocol/Frame.h"
#include "protocol/Head.h"
#include "protocol/Machine.h"
#include "protocol/Shared.h"

#include <map>
#include <vector>

namespace kesa::commadapter::protocol {

/// Reads frames. Small ones are taken out of one receive buffer; the body of a larger one is read straight into its
/// block: `m_current` then says which, and `inputBuffer` leads there until the frame is complete.
class Machine::Input {
public:
    Input(Role role, const Hello& own, const Limits& limits, IMachineListener& listener, Shared& shared);

    std::span<unsigned char> inputBuffer();
    [[nodiscard]] bool received(std::size_t size, comm::TimeNs now);
    [[nodiscard]] bool readOn() { return m_hasFailed || readFrames(); }
    const std::string& reason() const noexcept { return m_reason; }
    void setClientId(std::string id) { m_clientId = std::make_shared<const std::string>(std::move(id)); }

private:
    /// A message with a larger body, part of which has arrived.
    struct Partial {
        FrameHeader header; ///< of its first frame
        Head head;          ///< views into `source`'s bytes
        std::shared_ptr<HeaderSource> source;
        Body body;
    };

    [[nodiscard]] bool readFrames();
    /// True: no further frame can be taken out of the buffer now.
    [[nodiscard]] bool readFrame(bool& failed);
    [[nodiscard]] bool checkHeader(const FrameHeader& header);
    [[nodiscard]] bool checkFragment(const FrameHeader& header);
    [[nodiscard]] bool handle(const FrameHeader& header, const unsigned char* content);
    [[nodiscard]] bool handleHello(const FrameHeader& header, const unsigned char* content);
    [[nodiscard]] bool handleAttach(const FrameHeader& header, const unsigned char* content);
    [[nodiscard]] bool handleMessage(const FrameHeader& header, const unsigned char* content);
    [[nodiscard]] bool readMessageHead(const FrameHeader& header, const unsigned char* content, Head& head);
    /// Takes up a larger message, or the next fragment of one, with the part of its body that is there.
    [[nodiscard]] bool handlePartial(const FrameHeader& header, const unsigned char* content, std::size_t size);
    [[nodiscard]] bool begin(const FrameHeader& header, const unsigned char* content);
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

    std::unique_ptr<unsigned char[]> m_buffer;
    std::size_t m_begin = 0; // unread bytes of m_buffer
    std::size_t m_end = 0;

    std::map<std::uint32_t, Partial> m_partials; // by stream
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

    bool m_hasHello = false;
    bool m_hasFailed = false;
    std::string m_reason;
};

} // namespace kesa::commadapter::protocol

#endif
