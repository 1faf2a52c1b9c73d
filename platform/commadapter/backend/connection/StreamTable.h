#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_STREAMTABLE_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_STREAMTABLE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
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

/// What one side knows of each stream of a connection, by the stream's number. The numbers may be the peer's choice, so
/// the table has only those parts in which one is in use, and the first: there nothing is allocated per stream. Either
/// all numbers of a table are the peer's choice (`take`), or none.
template <class Entry>
class StreamTable {
public:
    /// The entry of a number in use; null for any other.
    Entry* find(std::uint32_t stream) noexcept
    {
        const std::size_t part = (stream - 1) / PART; // of 0 there is none
        return part < m_parts.size() && m_parts[part] && at(stream).isTaken ? &at(stream) : nullptr;
    }
    /// Takes a number that the peer chose; null when it is out of range or in use.
    Entry* take(std::uint32_t stream)
    {
        if (stream == 0 || stream > MAX_STREAMS || find(stream) != nullptr) {
            return nullptr;
        }
        const std::size_t part = (stream - 1) / PART;
        if (part >= m_parts.size()) {
            m_parts.resize(part + 1);
        }
        if (!m_parts[part]) {
            m_parts[part] = std::make_unique<Part>();
            ++m_partCount;
        }
        ++m_parts[part]->taken;
        ++m_taken;
        at(stream).isTaken = true;
        return &at(stream);
    }
    void release(std::uint32_t stream)
    {
        const std::size_t part = (stream - 1) / PART;
        at(stream) = Entry();
        --m_taken;
        if (--m_parts[part]->taken == 0 && part > 0) {
            m_parts[part].reset();
            --m_partCount;
        }
    }

    /// Takes a free number, the one given back last if there is one; 0 when all are in use.
    std::uint32_t takeAny()
    {
        std::uint32_t stream = 0;
        if (!m_free.empty()) {
            stream = m_free.back();
            m_free.pop_back();
        } else if (m_highest < MAX_STREAMS) {
            stream = ++m_highest;
            if (m_free.capacity() < m_highest) {
                m_free.reserve(2 * std::size_t{m_highest});
            }
        } else {
            return 0;
        }
        take(stream);
        return stream;
    }
    void giveBack(std::uint32_t stream)
    {
        release(stream);
        m_free.push_back(stream);
    }

    /// How many numbers are in use.
    std::size_t countTaken() const noexcept { return m_taken; }
    /// What it takes for them.
    std::size_t bytes() const noexcept { return m_partCount * sizeof(Part); }
    /// The highest number that `takeAny` ever gave.
    std::uint32_t highest() const noexcept { return m_highest; }

    void append(StreamList& list, std::uint32_t stream)
    {
        Entry& entry = at(stream);
        entry.previous = list.last;
        entry.next = 0;
        (list.last != 0 ? at(list.last).next : list.first) = stream;
        list.last = stream;
    }
    void remove(StreamList& list, std::uint32_t stream)
    {
        const Entry& entry = at(stream);
        (entry.previous != 0 ? at(entry.previous).next : list.first) = entry.next;
        (entry.next != 0 ? at(entry.next).previous : list.last) = entry.previous;
    }

private:
    static constexpr std::uint32_t PART = 64;
    struct Part {
        std::array<Entry, PART> entries{};
        std::uint32_t taken = 0;
    };
    Entry& at(std::uint32_t stream) noexcept { return m_parts[(stream - 1) / PART]->entries[(stream - 1) % PART]; }

    std::vector<std::unique_ptr<Part>> m_parts;
    std::size_t m_partCount = 0;
    std::size_t m_taken = 0;
    std::uint32_t m_highest = 0;
    std::vector<std::uint32_t> m_free;
};

} // namespace kesa::commadapter

#endif
