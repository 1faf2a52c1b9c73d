#include "protocol/TurnQueue.h"

#include <algorithm>
#include <utility>

namespace kesa::commadapter::protocol {

namespace {

constexpr std::size_t FULL_FRAME = HEADER_BYTES + FRAME_BYTES;

} // namespace

std::size_t TurnQueue::Message::wireBytes() const noexcept
{
    const std::size_t frames = std::max<std::size_t>(1, (content() + FRAME_BYTES - 1) / FRAME_BYTES);
    return content() + frames * HEADER_BYTES;
}

const TurnQueue::Lane* TurnQueue::find(std::uint32_t stream) const
{
    if (m_lanes.empty() || stream == 0) {
        return nullptr;
    }
    const auto found = m_lanes.find(stream);
    return found == m_lanes.end() ? nullptr : &found->second;
}

bool TurnQueue::isNext(std::uint32_t stream, Kind kind) const
{
    const Lane* const lane = find(stream);
    return lane != nullptr && lane->message.kind == kind;
}

bool TurnQueue::push(std::uint32_t stream, Message&& message)
{
    const std::size_t size = message.wireBytes();
    m_queued += size;
    m_persistent += message.isPersistent ? size : 0;
    m_requestCost += message.requestCost();
    const auto [entry, isFirst] = m_lanes.try_emplace(stream);
    Lane& lane = entry->second;
    if (isFirst) {
        lane.stream = stream;
        lane.message = std::move(message);
    } else {
        lane.followerBytes += size;
        lane.followers.push_back(std::move(message));
    }
    return isFirst;
}

void TurnQueue::join(std::uint32_t stream)
{
    Lane& lane = m_lanes.at(stream);
    lane.hasJoined = true;
    m_ring.push_back(&lane);
}

void TurnQueue::uncount(const Message& message) noexcept
{
    const std::size_t size = message.wireBytes();
    m_queued -= size;
    m_persistent -= message.isPersistent ? size : 0;
    m_requestCost -= message.requestCost();
}

TurnQueue::Dropped TurnQueue::drop(std::uint32_t stream, Kind kind)
{
    if (!has(stream)) {
        return Dropped::eNOTHING;
    }
    Lane& lane = m_lanes.at(stream);
    const bool dropped = dropFollowers(lane, kind);
    if (lane.message.kind != kind || lane.written > 0) {
        return dropped ? Dropped::eFOLLOWERS : Dropped::eNOTHING;
    }
    uncount(lane.message);
    std::erase(m_ring, &lane);
    return lane.hasJoined ? Dropped::eFIRST : Dropped::eUNJOINED;
}

bool TurnQueue::dropFollowers(Lane& lane, Kind kind)
{
    return std::erase_if(lane.followers, [&](const Message& message) {
               if (message.kind != kind) {
                   return false;
               }
               uncount(message);
               lane.followerBytes -= message.wireBytes();
               return true;
           }) > 0;
}

std::optional<TurnQueue::Message> TurnQueue::takeFollower(std::uint32_t stream)
{
    Lane& lane = m_lanes.at(stream);
    if (lane.followers.empty()) {
        m_lanes.erase(stream);
        return std::nullopt;
    }
    Message message = std::move(lane.followers.front());
    lane.followers.pop_front();
    lane.followerBytes -= message.wireBytes();
    if (message.isLarge()) {
        lane.message = std::move(message);
        lane.written = 0;
        lane.hasJoined = false;
        return std::nullopt;
    }
    uncount(message);
    return message;
}

std::size_t TurnQueue::bytes(std::uint32_t stream) const
{
    const Lane* const lane = find(stream);
    return lane == nullptr ? 0 : lane->message.wireBytes() - lane->written + lane->followerBytes;
}

// ---- leaving --------------------------------------------------------------------------------------------------

bool TurnQueue::isInsideFragment() const noexcept
{
    return !m_ring.empty() && m_ring.front()->written % FULL_FRAME != 0;
}

/// Those that take turns stand in front; so they stay the same until one has left.
std::size_t TurnQueue::countActive() const noexcept
{
    std::size_t count = 0;
    for (std::size_t bytes = 0; count < std::min(MAX_INTERLEAVED, m_ring.size()); ++count) {
        bytes += m_ring[count]->message.content();
        if (count > 0 && bytes > m_mostUnderWay) {
            break;
        }
    }
    return count;
}

TurnQueue::Fragment TurnQueue::gather(Gathering& gathering, std::size_t number)
{
    const std::size_t active = countActive();
    Lane& lane = *m_ring[number % active];
    if (number < active) {
        lane.gathered = lane.written;
    }
    const Message& message = lane.message;
    const std::size_t start = lane.gathered / FULL_FRAME * FRAME_BYTES;
    const std::size_t size = std::min(FRAME_BYTES, message.content() - start);
    FrameHeader fields;
    fields.length = static_cast<std::uint32_t>(size);
    fields.kind = static_cast<std::uint8_t>(message.kind);
    fields.flags = start + size < message.content() ? FLAG_MORE : 0;
    fields.head = start == 0 ? static_cast<std::uint16_t>(message.head.size()) : std::uint16_t{0};
    fields.stream = lane.stream;
    fields.target = message.target;
    unsigned char* const header = m_headers[number].data();
    writeHeader(header, fields);

    const std::size_t done = lane.gathered % FULL_FRAME;
    const std::size_t ofHeader = std::min(done, HEADER_BYTES);
    std::size_t bytes = gathering.add(header + ofHeader, HEADER_BYTES - ofHeader);
    std::size_t at = start + done - ofHeader;
    const std::size_t headSize = message.head.size();
    if (at < headSize) { // the head fits into the first fragment
        bytes += gathering.add(message.head.data() + at, headSize - at);
        at = headSize;
    }
    bytes += gathering.add(message.body.data() + (at - headSize), start + size - at);
    lane.gathered += bytes;
    return {bytes, lane.gathered == message.wireBytes()};
}

TurnQueue::Finished TurnQueue::sent(std::size_t size)
{
    Lane& lane = *m_ring.front();
    m_queued -= size;
    m_persistent -= lane.message.isPersistent ? size : 0;
    lane.written += size;
    const bool isFinished = lane.written == lane.message.wireBytes();
    if (!isFinished && lane.written % FULL_FRAME != 0) {
        return {};
    }
    const std::size_t active = countActive();
    m_ring.erase(m_ring.begin());
    if (isFinished) {
        m_requestCost -= lane.message.requestCost();
        return {true, lane.stream};
    }
    m_ring.insert(m_ring.begin() + static_cast<std::ptrdiff_t>(active - 1), &lane);
    return {true, std::nullopt};
}

} // namespace kesa::commadapter::protocol
