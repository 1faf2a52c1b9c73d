#include "protocol/SendQueue.h"

#include <obr/GlobalErrorHandler.h>

#include <algorithm>

namespace kesa::commadapter::protocol {

namespace {

constexpr std::size_t FULL_FRAME = HEADER_BYTES + FRAME_BYTES;
constexpr std::size_t GATHERED_BYTES = 512U << 10U; ///< of the line in one `gather`: more fits into no socket
constexpr std::size_t KEPT_ENTRIES = 4096;

} // namespace

std::size_t SendQueue::Message::wireBytes() const noexcept
{
    const std::size_t frames = std::max<std::size_t>(1, (content() + FRAME_BYTES - 1) / FRAME_BYTES);
    return content() + frames * HEADER_BYTES;
}

// ---- writing a message ----------------------------------------------------------------------------------------

SendQueue::Lane* SendQueue::laneOf(std::uint32_t stream)
{
    if (m_lanes.empty() || stream == 0) {
        return nullptr;
    }
    const auto found = m_lanes.find(stream);
    return found == m_lanes.end() ? nullptr : &found->second;
}

void SendQueue::push(Kind kind, std::uint32_t stream, std::uint32_t target)
{
    begin();
    push(kind, stream, target, Payload::getEmpty());
}

void SendQueue::count(std::size_t size, bool isPersistent) noexcept
{
    m_queued += size;
    m_persistent += isPersistent ? size : 0;
}

void SendQueue::uncount(std::size_t size, bool isPersistent) noexcept
{
    m_queued -= size;
    m_persistent -= isPersistent ? size : 0;
}

void SendQueue::push(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent)
{
    const std::size_t head = m_bytes.size() - m_lineBytes - HEADER_BYTES;
    Lane* lane = laneOf(stream);
    if (lane == nullptr && head + body.size() <= FRAME_BYTES) {
        count(HEADER_BYTES + head + body.size(), isPersistent);
        pushLine(kind, stream, target, body, isPersistent);
        return;
    }
    const unsigned char* const from = m_bytes.data() + m_lineBytes + HEADER_BYTES;
    Message message{kind, target, std::vector<unsigned char>(from, from + head), body, isPersistent};
    abandon();
    const std::size_t size = message.wireBytes();
    count(size, isPersistent);
    if (lane != nullptr) {
        lane->followerBytes += size;
        lane->followers.push_back(std::move(message));
        return;
    }
    lane = &m_lanes[stream];
    lane->stream = stream;
    lane->message = std::move(message);
    pushLane(*lane);
}

void SendQueue::pushLine(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent)
{
    FrameHeader header;
    header.head = static_cast<std::uint16_t>(m_bytes.size() - m_lineBytes - HEADER_BYTES);
    header.length = static_cast<std::uint32_t>(header.head + body.size());
    header.kind = static_cast<std::uint8_t>(kind);
    header.stream = stream;
    header.target = target;
    const bool isCopied = body.size() <= INLINE_BODY_BYTES;
    if (isCopied) {
        m_bytes.append(body.data(), body.size());
    } else {
        m_bodies.push_back(body);
    }
    const auto bodyNumber = static_cast<std::uint32_t>(m_firstBody + m_bodies.size() - 1);
    writeHeader(m_bytes.data() + m_lineBytes, header);
    const auto bytes = static_cast<std::uint32_t>(m_bytes.size() - m_lineBytes);
    m_entries.push_back({stream, bytes, isCopied ? 0 : static_cast<std::uint32_t>(body.size()), bodyNumber, 0, kind,
                         false, false, isPersistent});
    m_lineBytes = m_bytes.size();
    m_hasPing = m_hasPing || kind == Kind::ePING;
    m_hasPong = m_hasPong || kind == Kind::ePONG;
}

void SendQueue::pushLane(Lane& lane)
{
    lane.written = 0;
    lane.isInRing = false;
    m_entries.push_back({lane.stream, 0, 0, 0, 0, lane.message.kind, false, true, false});
}

void SendQueue::advance(Lane& lane)
{
    while (!lane.followers.empty()) {
        Message message = std::move(lane.followers.front());
        lane.followers.pop_front();
        lane.followerBytes -= message.wireBytes();
        if (message.isLarge()) {
            lane.message = std::move(message);
            pushLane(lane);
            return;
        }
        begin().append(message.head.data(), message.head.size());
        pushLine(message.kind, lane.stream, message.target, message.body, message.isPersistent);
    }
    m_lanes.erase(lane.stream);
}

// ---- leaving --------------------------------------------------------------------------------------------------

/// What one `gather` gives out.
struct SendQueue::Plan {
    std::span<iovec> out;
    std::size_t count = 0;
    bool isFull = false; ///< there was no room for all of the last frame, or for the next

    std::size_t entry; ///< cursor in the line
    std::size_t offset = 0;
    std::size_t body = 0;
    std::size_t written; ///< of the entry at the cursor

    /// Adds a stretch, joined with the one before it when it follows it in memory. Answers the bytes added.
    std::size_t add(const unsigned char* data, std::size_t size)
    {
        if (size == 0 || isFull) {
            return 0;
        }
        if (count > 0) {
            iovec& last = out[count - 1];
            if (static_cast<const unsigned char*>(last.iov_base) + last.iov_len == data) {
                last.iov_len += size;
                return size;
            }
        }
        if (count == out.size()) {
            isFull = true;
            return 0;
        }
        out[count++] = {const_cast<unsigned char*>(data), size};
        return size;
    }
};

std::size_t SendQueue::gather(std::span<iovec> out)
{
    m_steps.clear();
    activate();
    Plan plan{.out = out, .entry = m_first, .written = m_frontWritten};
    if (m_ring.empty()) {
        planLine(plan, GATHERED_BYTES);
        return plan.count;
    }
    const bool isInsideFragment = m_ring.front()->written % FULL_FRAME != 0;
    if (!isInsideFragment) {
        planLine(plan, m_credit);
    }
    const std::size_t active = std::min(MAX_INTERLEAVED, m_ring.size());
    for (std::size_t i = 0; i < GATHERED_FRAGMENTS && !plan.isFull; ++i) {
        Lane& lane = *m_ring[i % active];
        if (i < active) {
            lane.planned = lane.written;
        }
        planFragment(plan, lane, m_headers[i].data());
        if (lane.planned == lane.message.wireBytes()) {
            break; // what comes after its end is only known then
        }
        planLine(plan, FRAME_BYTES);
    }
    return plan.count;
}

void SendQueue::activate()
{
    while (m_first < m_entries.size() && m_frontWritten == 0) {
        const Entry entry = m_entries[m_first];
        if (!entry.isDropped && !entry.isLarge) {
            return;
        }
        if (!entry.isDropped) {
            Lane& lane = m_lanes.at(entry.stream);
            lane.isInRing = true;
            m_ring.push_back(&lane);
        }
        popFront();
    }
}

void SendQueue::planLine(Plan& plan, std::size_t limit)
{
    std::size_t planned = 0;
    while (plan.entry < m_entries.size() && !plan.isFull) {
        const Entry& entry = m_entries[plan.entry];
        if (entry.isLarge && !entry.isDropped) {
            break;
        }
        if (!entry.isDropped) {
            if (planned >= limit && plan.written == 0) {
                break; // a frame that is begun is finished first
            }
            const std::size_t ofBytes = std::min<std::size_t>(plan.written, entry.bytes);
            planned += plan.add(m_bytes.data() + plan.offset + ofBytes, entry.bytes - ofBytes);
            if (entry.body > 0) {
                const std::size_t ofBody = plan.written - ofBytes;
                planned += plan.add(m_bodies[plan.body].data() + ofBody, entry.body - ofBody);
            }
        }
        plan.written = 0;
        plan.offset += entry.bytes;
        plan.body += entry.body > 0 ? 1U : 0U;
        ++plan.entry;
    }
    if (planned > 0) {
        m_steps.push_back({nullptr, planned});
    }
}

void SendQueue::planFragment(Plan& plan, Lane& lane, unsigned char* header)
{
    const Message& message = lane.message;
    const std::size_t start = lane.planned / FULL_FRAME * FRAME_BYTES;
    const std::size_t size = std::min(FRAME_BYTES, message.content() - start);
    FrameHeader fields;
    fields.length = static_cast<std::uint32_t>(size);
    fields.kind = static_cast<std::uint8_t>(message.kind);
    fields.flags = start + size < message.content() ? FLAG_MORE : 0;
    fields.head = start == 0 ? static_cast<std::uint16_t>(message.head.size()) : std::uint16_t{0};
    fields.stream = lane.stream;
    fields.target = message.target;
    writeHeader(header, fields);

    const std::size_t done = lane.planned % FULL_FRAME;
    const std::size_t ofHeader = std::min(done, HEADER_BYTES);
    std::size_t bytes = plan.add(header + ofHeader, HEADER_BYTES - ofHeader);
    std::size_t at = start + done - ofHeader;
    const std::size_t headSize = message.head.size();
    if (at < headSize) { // the head fits into the first fragment
        bytes += plan.add(message.head.data() + at, headSize - at);
        at = headSize;
    }
    bytes += plan.add(message.body.data() + (at - headSize), start + size - at);
    lane.planned += bytes;
    m_steps.push_back({&lane, bytes});
}

void SendQueue::sent(std::size_t size)
{
    m_queued -= size;
    m_sent += size;
    for (const Step& step : m_steps) {
        const std::size_t taken = std::min(size, step.bytes);
        if (taken == 0) {
            break;
        }
        size -= taken;
        if (step.lane == nullptr) {
            sentLine(taken);
        } else {
            sentLane(*step.lane, taken);
        }
    }
    m_steps.clear();
    if (size > 0) {
        obr::GlobalErrorHandler::doAssert(false, "size <= gathered", __FILE__, __LINE__, __func__,
                                          "more bytes were sent than the last gather gave out");
    }
}

void SendQueue::sentLine(std::size_t size)
{
    if (!m_ring.empty()) {
        m_credit -= std::min(m_credit, size);
    }
    m_frontWritten += size;
    while (m_first < m_entries.size()) {
        const Entry& entry = m_entries[m_first];
        if (!entry.isDropped && (entry.isLarge || m_frontWritten < entry.size())) {
            break;
        }
        if (!entry.isDropped) {
            m_frontWritten -= entry.size();
            m_persistent -= entry.isPersistent ? entry.size() : 0;
        }
        popFront();
    }
}

void SendQueue::popFront()
{
    const Entry entry = m_entries[m_first];
    if (m_accounted > 0) {
        if (!entry.isDropped && !entry.isLarge) {
            unaccount(entry);
        }
        --m_accounted;
    }
    if (entry.isDropped) {
        m_droppedBytes -= entry.bytes + sizeof(Entry);
    }
    m_hasPing = m_hasPing && entry.kind != Kind::ePING;
    m_hasPong = m_hasPong && entry.kind != Kind::ePONG;
    m_bytes.consume(entry.bytes);
    m_lineBytes -= entry.bytes;
    if (entry.body > 0) {
        m_bodies.pop_front();
        ++m_firstBody;
    }
    ++m_first;
    ++m_firstNumber;
    if (m_first == m_entries.size()) {
        m_entries.clear();
        m_first = 0;
    } else if (m_first >= 1024 && 2 * m_first > m_entries.size()) {
        m_entries.erase(m_entries.begin(), m_entries.begin() + static_cast<std::ptrdiff_t>(m_first));
        m_first = 0;
    } else {
        return;
    }
    if (m_entries.capacity() > KEPT_ENTRIES && m_entries.size() < m_entries.capacity() / 8) { // a burst is over
        m_entries.shrink_to_fit();
    }
}

void SendQueue::sentLane(Lane& lane, std::size_t size)
{
    lane.written += size;
    m_persistent -= lane.message.isPersistent ? size : 0;
    const bool isFinished = lane.written == lane.message.wireBytes();
    if (!isFinished && lane.written % FULL_FRAME != 0) {
        return;
    }
    m_credit = FRAME_BYTES;
    m_ring.erase(m_ring.begin()); // whose turn it was stands in front
    if (isFinished) {
        advance(lane);
        return;
    }
    const std::size_t last = std::min(MAX_INTERLEAVED - 1, m_ring.size());
    m_ring.insert(m_ring.begin() + static_cast<std::ptrdiff_t>(last), &lane);
}

} // namespace kesa::commadapter::protocol
