// Taking back what has not left, telling whether something has, and the count per stream that both need.

#include "protocol/SendQueue.h"

#include <algorithm>
#include <cstring>

namespace kesa::commadapter::protocol {

namespace {

constexpr std::size_t COMPACTED_BYTES = 64U << 10U;

} // namespace

bool SendQueue::drop(std::uint32_t stream, Kind kind)
{
    if (m_queued == 0) {
        return false;
    }
    bool dropped = dropFromLine(stream, kind);
    if (Lane* const lane = laneOf(stream)) {
        dropped = dropFromLane(*lane, kind) || dropped;
    }
    if (m_droppedBytes > COMPACTED_BYTES &&
        2 * m_droppedBytes > m_bytes.size() + (m_entries.size() - m_first) * sizeof(Entry)) {
        compact();
    }
    return dropped;
}

bool SendQueue::dropFromLine(std::uint32_t stream, Kind kind)
{
    account();
    const auto account = m_perStream.find(stream);
    if (account == m_perStream.end()) {
        return false;
    }
    bool dropped = false;
    std::uint64_t number = account->second.last;
    for (std::uint32_t back = 1; back != 0 && number >= m_firstNumber; number -= back) {
        Entry& entry = entryAt(number);
        const bool isBegun = number == m_firstNumber && m_frontWritten > 0;
        if (entry.kind == kind && !entry.isDropped && !isBegun) {
            unaccount(entry);
            uncount(entry.size(), entry.isPersistent);
            if (entry.body > 0) {
                m_bodies[entry.bodyNumber - m_firstBody] = Payload();
            }
            dropEntry(entry);
            dropped = true;
        }
        back = entry.previous;
    }
    return dropped;
}

void SendQueue::dropEntry(Entry& entry)
{
    entry.isDropped = true;
    m_droppedBytes += entry.bytes + sizeof(Entry);
}

bool SendQueue::dropFromLane(Lane& lane, Kind kind)
{
    std::deque<Message> kept;
    const std::size_t count = lane.followers.size();
    for (Message& message : lane.followers) {
        if (message.kind == kind) {
            uncount(message.wireBytes(), message.isPersistent);
            lane.followerBytes -= message.wireBytes();
        } else {
            kept.push_back(std::move(message));
        }
    }
    lane.followers = std::move(kept);
    if (lane.message.kind != kind || lane.written > 0) {
        return lane.followers.size() < count;
    }
    uncount(lane.message.wireBytes(), lane.message.isPersistent);
    if (lane.isInRing) {
        m_ring.erase(std::find(m_ring.begin(), m_ring.end(), &lane));
    } else {
        const auto entry =
            std::find_if(m_entries.begin() + static_cast<std::ptrdiff_t>(m_first), m_entries.end(),
                         [&lane](const Entry& e) { return e.isLarge && !e.isDropped && e.stream == lane.stream; });
        dropEntry(*entry);
    }
    advance(lane);
    return true;
}

void SendQueue::compact()
{
    unsigned char* to = m_bytes.data();
    const unsigned char* from = to;
    std::deque<Payload> bodies;
    std::vector<Entry> entries;
    std::size_t body = 0;
    for (std::size_t i = m_first; i < m_entries.size(); ++i) {
        const Entry& entry = m_entries[i];
        if (!entry.isDropped) {
            std::memmove(to, from, entry.bytes);
            to += entry.bytes;
            entries.push_back(entry);
            if (entry.body > 0) {
                entries.back().bodyNumber = static_cast<std::uint32_t>(m_firstBody + bodies.size());
                bodies.push_back(std::move(m_bodies[body]));
            }
        }
        from += entry.bytes;
        body += entry.body > 0 ? 1U : 0U;
    }
    m_lineBytes = static_cast<std::size_t>(to - m_bytes.data());
    m_bytes.truncate(m_lineBytes);
    m_entries = std::move(entries);
    m_bodies = std::move(bodies);
    m_first = 0;
    m_droppedBytes = 0;
    m_perStream.clear();
    m_accounted = 0;
}

// ---- what has left --------------------------------------------------------------------------------------------

/// What is taken back makes the end come earlier, so fewer bytes than `endThen` say nothing yet. Nothing is queued
/// behind a message of the same stream and kind, so none is among a lane's followers.
bool SendQueue::holds(std::uint32_t stream, Kind kind, std::uint64_t endThen)
{
    if (const Lane* const lane = laneOf(stream)) {
        return lane->message.kind == kind;
    }
    return m_sent < endThen && isInLine(stream, kind);
}

bool SendQueue::isInLine(std::uint32_t stream, Kind kind)
{
    account();
    const auto account = m_perStream.find(stream);
    if (account == m_perStream.end()) {
        return false;
    }
    std::uint64_t number = account->second.last;
    for (std::uint32_t back = 1; back != 0 && number >= m_firstNumber; number -= back) {
        const Entry& entry = entryAt(number);
        if (entry.kind == kind && !entry.isDropped) {
            return true;
        }
        back = entry.previous;
    }
    return false;
}

// ---- counting -------------------------------------------------------------------------------------------------

void SendQueue::account()
{
    for (std::size_t i = m_first + m_accounted; i < m_entries.size(); ++i) {
        Entry& entry = m_entries[i];
        if (entry.isDropped || entry.isLarge) {
            continue;
        }
        const std::uint64_t number = m_firstNumber + (i - m_first);
        const auto [account, isFirst] = m_perStream.try_emplace(entry.stream);
        entry.previous = isFirst ? 0 : static_cast<std::uint32_t>(number - account->second.last);
        account->second.last = number;
        account->second.bytes += entry.size();
    }
    m_accounted = m_entries.size() - m_first;
}

void SendQueue::unaccount(const Entry& entry)
{
    const auto found = m_perStream.find(entry.stream);
    if (found != m_perStream.end() && (found->second.bytes -= entry.size()) == 0) {
        m_perStream.erase(found);
    }
}

std::size_t SendQueue::bytes(std::uint32_t stream)
{
    if (m_queued == 0) {
        return 0;
    }
    account();
    std::size_t bytes = 0;
    if (const auto found = m_perStream.find(stream); found != m_perStream.end()) {
        bytes = found->second.bytes;
    }
    if (m_frontWritten > 0 && m_entries[m_first].stream == stream) {
        bytes -= m_frontWritten;
    }
    if (const auto found = m_lanes.find(stream); found != m_lanes.end()) {
        const Lane& lane = found->second;
        bytes += lane.message.wireBytes() - lane.written + lane.followerBytes;
    }
    return bytes;
}

} // namespace kesa::commadapter::protocol
