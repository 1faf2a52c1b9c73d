#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_STREAMTABLE_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_STREAMTABLE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kesa::commadapter {

/// How many streams one connection may have open at once; their numbers are 1 to this.
inline constexpr std::uint32_t MAX_STREAMS = 65536;

/// Streams of one table in the order they were added; 0 is none.
struct StreamList {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
};

/// What the entries of a table have in common.
struct StreamEntry {
    std::uint32_t previous = 0;
    std::uint32_t next = 0;
    bool isTaken = false; ///< its number is in use
};

/// What one side knows of each stream of a connection, flat and indexed by the stream's number: nothing is allocated
/// per stream once the table has grown. Either all numbers of a table are the peer's choice (`take`), or none.
template <class Entry>
class StreamTable {
public:
    /// The entry of a number in use; null for any other.
    Entry* find(std::uint32_t stream) noexcept
    {
        return stream > 0 && stream <= m_entries.size() && m_entries[stream - 1].isTaken ? &m_entries[stream - 1]
                                                                                         : nullptr;
    }
    /// Takes a number that the peer chose; null when it is out of range or in use.
    Entry* take(std::uint32_t stream)
    {
        if (stream == 0 || stream > MAX_STREAMS || find(stream) != nullptr) {
            return nullptr;
        }
        if (stream > m_entries.size()) {
            m_entries.resize(stream);
        }
        m_entries[stream - 1].isTaken = true;
        return &m_entries[stream - 1];
    }
    void release(std::uint32_t stream) { m_entries[stream - 1] = Entry(); }

    /// Takes a free number, the one given back last if there is one; 0 when all are in use.
    std::uint32_t takeAny()
    {
        std::uint32_t stream = 0;
        if (!m_free.empty()) {
            stream = m_free.back();
            m_free.pop_back();
        } else if (m_entries.size() < MAX_STREAMS) {
            m_entries.emplace_back();
            m_free.reserve(m_entries.capacity());
            stream = highest();
        } else {
            return 0;
        }
        m_entries[stream - 1].isTaken = true;
        return stream;
    }
    void giveBack(std::uint32_t stream)
    {
        release(stream);
        m_free.push_back(stream);
    }

    /// How many numbers are in use: a look at all that ever were.
    std::size_t countTaken() const noexcept
    {
        return static_cast<std::size_t>(
            std::count_if(m_entries.begin(), m_entries.end(), [](const Entry& entry) { return entry.isTaken; }));
    }
    /// The highest number that was ever in use.
    std::uint32_t highest() const noexcept { return static_cast<std::uint32_t>(m_entries.size()); }

    void append(StreamList& list, std::uint32_t stream)
    {
        Entry& entry = m_entries[stream - 1];
        entry.previous = list.last;
        entry.next = 0;
        (list.last != 0 ? m_entries[list.last - 1].next : list.first) = stream;
        list.last = stream;
    }
    void remove(StreamList& list, std::uint32_t stream)
    {
        const Entry& entry = m_entries[stream - 1];
        (entry.previous != 0 ? m_entries[entry.previous - 1].next : list.first) = entry.next;
        (entry.next != 0 ? m_entries[entry.next - 1].previous : list.last) = entry.previous;
    }

private:
    std::vector<Entry> m_entries;
    std::vector<std::uint32_t> m_free;
};

} // namespace kesa::commadapter

#endif
