#include "protocol/FrameQueue.h"

#include <algorithm>

namespace kesa::commadapter::protocol {

namespace {

constexpr std::size_t KEPT_ENTRIES = 4096;

} // namespace

// ---- writing a message ----------------------------------------------------------------------------------------

void FrameQueue::push(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent)
{
    FrameHeader header;
    header.head = static_cast<std::uint16_t>(m_bytes.size() - m_frameBytes - HEADER_BYTES);
    header.length = static_cast<std::uint32_t>(header.head + body.size());
    header.kind = static_cast<std::uint8_t>(kind);
    header.flags = kind == Kind::eGOODBYE ? FLAG_MAY_BE_IGNORED : 0;
    header.stream = stream;
    header.target = target;
    Entry entry{stream, 0, 0, 0, 0, kind, false, false, isPersistent};
    if (body.size() <= INLINE_BODY_BYTES) {
        m_bytes.append(body.data(), body.size());
    } else {
        m_bodies.push_back(body);
        entry.body = static_cast<std::uint32_t>(body.size());
        entry.bodyNumber = static_cast<std::uint32_t>(m_firstBody + m_bodies.size() - 1);
    }
    writeHeader(m_bytes.data() + m_frameBytes, header);
    entry.bytes = static_cast<std::uint32_t>(m_bytes.size() - m_frameBytes);
    m_entries.push_back(entry);
    m_frameBytes = m_bytes.size();
    m_queued += entry.size();
    m_persistent += isPersistent ? entry.size() : 0;
    m_requestCost += entry.requestCost();
    m_hasPing = m_hasPing || kind == Kind::ePING;
    m_hasPong = m_hasPong || kind == Kind::ePONG;
}

void FrameQueue::pushPlace(std::uint32_t stream)
{
    m_entries.push_back({stream, 0, 0, 0, 0, Kind::eNEXT, false, true, false});
}

// ---- leaving --------------------------------------------------------------------------------------------------

std::optional<std::uint32_t> FrameQueue::takeFrontPlace()
{
    while (!isEmpty() && m_entries[m_first].isNoFrame()) {
        const Entry entry = m_entries[m_first];
        giveBack(popFront());
        if (!entry.isDropped) {
            return entry.stream;
        }
    }
    return std::nullopt;
}

std::size_t FrameQueue::gather(Gathering& gathering, Cursor& cursor, std::size_t limit) const
{
    std::size_t gathered = 0;
    while (cursor.entry < m_entries.size() && !gathering.isFull) {
        const Entry& entry = m_entries[cursor.entry];
        if (entry.isPlace && !entry.isDropped) {
            break;
        }
        if (!entry.isDropped) {
            if (gathered >= limit && cursor.written == 0) {
                break; // a frame that is begun is finished first
            }
            const std::size_t ofBytes = std::min<std::size_t>(cursor.written, entry.bytes);
            gathered += gathering.add(m_bytes.data() + cursor.offset + ofBytes, entry.bytes - ofBytes);
            if (entry.body > 0) {
                const std::size_t ofBody = cursor.written - ofBytes;
                gathered += gathering.add(m_bodies[cursor.body].data() + ofBody, entry.body - ofBody);
            }
        }
        cursor.written = 0;
        cursor.offset += entry.bytes;
        cursor.body += entry.body > 0 ? 1U : 0U;
        ++cursor.entry;
    }
    return gathered;
}

void FrameQueue::sent(std::size_t size)
{
    m_queued -= size;
    m_frontWritten += size;
    std::size_t gone = 0;
    while (m_first < m_entries.size()) {
        const Entry& entry = m_entries[m_first];
        if (!entry.isDropped && (entry.isPlace || m_frontWritten < entry.size())) {
            break;
        }
        if (!entry.isDropped) {
            m_frontWritten -= entry.size();
            m_persistent -= entry.isPersistent ? entry.size() : 0;
            m_requestCost -= entry.requestCost();
        }
        gone += popFront();
    }
    giveBack(gone);
}

/// Answers what of `m_bytes` was the entry's, for `giveBack`.
std::size_t FrameQueue::popFront()
{
    const Entry& entry = m_entries[m_first];
    if (m_accounted > 0) {
        if (!entry.isDropped && !entry.isPlace) {
            unaccount(entry);
        }
        --m_accounted;
    }
    if (entry.isDropped) {
        m_droppedBytes -= entry.bytes + sizeof(Entry);
    }
    m_hasPing = m_hasPing && entry.kind != Kind::ePING;
    m_hasPong = m_hasPong && entry.kind != Kind::ePONG;
    if (entry.body > 0) {
        m_bodies.pop_front();
        ++m_firstBody;
    }
    ++m_first;
    ++m_firstNumber;
    return entry.bytes;
}

/// What entries that have left took, so much of `m_bytes` among it.
void FrameQueue::giveBack(std::size_t bytes)
{
    m_bytes.consume(bytes);
    m_frameBytes -= bytes;
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

} // namespace kesa::commadapter::protocol
