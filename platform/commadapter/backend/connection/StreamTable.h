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
/// the table has only those parts in which one is in use, and the one that was emptied last: there nothing is allocated
/// per stream. Either all numbers of a table are the peer's choice (`take`), or none.
template <class Entry>
class StreamTable {
public:
    /// How many streams a part is for.
    static constexpr std::uint32_t PART = 64;
    struct Part {
        std::array<Entry, PART> entries{};
        std::uint32_t taken = 0;
    };

    /// The entry of a number in use; null for any other.
    Entry* find(std::uint32_t stream) noexcept
    {
        Part* const part = partOf(stream);
        if (part == nullptr) {
            return nullptr;
        }
        Entry& entry = part->entries[(stream - 1) % PART];
        return entry.isTaken ? &entry : nullptr;
    }
    /// Whether `take` of that number, which is in range, makes a part.
    bool needsPart(std::uint32_t stream) const noexcept { return partOf(stream) == nullptr; }
    /// Takes a number that the peer chose; null when it is out of range or in use.
    Entry* take(std::uint32_t stream)
    {
        if (stream == 0 || stream > MAX_STREAMS) {
            return nullptr;
        }
        Part* part = partOf(stream);
        if (part == nullptr) {
            part = makePart((stream - 1) / PART);
        }
        Entry& entry = part->entries[(stream - 1) % PART];
        if (entry.isTaken) {
            return nullptr;
        }
        entry.isTaken = true;
        ++part->taken;
        return &entry;
    }
    void release(std::uint32_t stream)
    {
        Part& part = *m_parts[(stream - 1) / PART];
        part.entries[(stream - 1) % PART] = Entry();
        if (--part.taken == 0) {
            keepEmpty((stream - 1) / PART);
        }
    }

    struct Taken {
        std::uint32_t number;
        Entry* entry;
    };
    /// Takes a free number, the one given back last if there is one; number 0 when all are in use.
    Taken takeAny()
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
            return {0, nullptr};
        }
        return {stream, take(stream)};
    }
    void giveBack(std::uint32_t stream)
    {
        release(stream);
        m_free.push_back(stream);
    }

    /// How many numbers are in use: a look at all parts.
    std::size_t countTaken() const noexcept
    {
        std::size_t taken = 0;
        for (const auto& part : m_parts) {
            taken += part ? part->taken : 0;
        }
        return taken;
    }
    std::size_t parts() const noexcept { return m_partCount; }
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
    Entry& at(std::uint32_t stream) noexcept { return m_parts[(stream - 1) / PART]->entries[(stream - 1) % PART]; }
    Part* partOf(std::uint32_t stream) const noexcept
    {
        const std::size_t index = (stream - 1) / PART; // of 0 there is none
        return index < m_parts.size() ? m_parts[index].get() : nullptr;
    }
    Part* makePart(std::size_t index)
    {
        if (index >= m_parts.size()) {
            m_parts.resize(index + 1);
        }
        m_parts[index] = std::make_unique<Part>();
        ++m_partCount;
        return m_parts[index].get();
    }
    /// In place of the part that was emptied before it.
    void keepEmpty(std::size_t index)
    {
        if (index != m_emptied && m_parts[m_emptied] && m_parts[m_emptied]->taken == 0) {
            m_parts[m_emptied].reset();
            --m_partCount;
        }
        m_emptied = index;
    }

    std::vector<std::unique_ptr<Part>> m_parts;
    std::size_t m_partCount = 0;
    std::size_t m_emptied = 0;
    std::uint32_t m_highest = 0;
    std::vector<std::uint32_t> m_free;
};

} // namespace kesa::commadapter

#endif
