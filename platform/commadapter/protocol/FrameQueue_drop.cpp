// Taking back what has not left, telling whether something has, and the count per stream that both need.

#include "protocol/FrameQueue.h"

#include <algorithm>
#include <cstring>

namespace kesa::commadapter::protocol {

namespace {

constexpr std::size_t COMPACTED_BYTES = 64U << 10U;

} // namespace

bool FrameQueue::drop(std::uint32_t stream, Kind kind)
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
            m_queued -= entry.size();
            m_persistent -= entry.isPersistent ? entry.size() : 0;
            m_requestCost -= entry.requestCost();
            if (entry.body > 0) {
                m_bodies[entry.bodyNumber - m_firstBody] = Payload();
            }
            dropEntry(entry);
            dropped = true;
        }
        back = entry.previous;
    }
    compactIfWorth();
    return dropped;
}

void FrameQueue::dropPlace(std::uint32_t stream)
{
    const auto place =
        std::find_if(m_entries.begin() + static_cast<std::ptrdiff_t>(m_first), m_entries.end(),
                     [stream](const Entry& e) { return e.isPlace && !e.isDropped && e.stream == stream; });
    dropEntry(*place);
    compactIfWorth();
}

void FrameQueue::dropEntry(Entry& entry)
{
    entry.isDropped = true;
    m_droppedBytes += entry.bytes + sizeof(Entry);
}

void FrameQueue::compactIfWorth()
{
    if (m_droppedBytes > COMPACTED_BYTES &&
        2 * m_droppedBytes > m_bytes.size() + (m_entries.size() - m_first) * sizeof(Entry)) {
        compact();
    }
}

void FrameQueue::compact()
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
    m_frameBytes = static_cast<std::size_t>(to - m_bytes.data());
    m_bytes.truncate(m_frameBytes);
    m_entries = std::move(entries);
    m_bodies = std::move(bodies);
    m_first = 0;
    m_droppedBytes = 0;
    m_perStream.clear();
    m_accounted = 0;
}

// ---- what is here -----------------------------------------------------------------------------------------------

bool FrameQueue::contains(std::uint32_t stream, Kind kind)
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

std::size_t FrameQueue::bytes(std::uint32_t stream)
{
    account();
    const auto found = m_perStream.find(stream);
    if (found == m_perStream.end()) {
        return 0;
    }
    const bool isFront = m_frontWritten > 0 && m_entries[m_first].stream == stream;
    return found->second.bytes - (isFront ? m_frontWritten : 0);
}

void FrameQueue::account()
{
    for (std::size_t i = m_first + m_accounted; i < m_entries.size(); ++i) {
        Entry& entry = m_entries[i];
        if (entry.isDropped || entry.isPlace) {
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

void FrameQueue::unaccount(const Entry& entry)
{
    const auto found = m_perStream.find(entry.stream);
    if (found != m_perStream.end() && (found->second.bytes -= entry.size()) == 0) {
        m_perStream.erase(found);
    }
}

} // namespace kesa::commadapter::protocol
