#ifndef KESA_COMMADAPTER_PROTOCOL_BYTEQUEUE_H
#define KESA_COMMADAPTER_PROTOCOL_BYTEQUEUE_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

namespace kesa::commadapter::protocol {

/// Bytes that are appended at the end and consumed from the front, in one block that is used again and again, and given
/// back when a burst is over. Pointers into it are valid until the next change of its size.
class ByteQueue {
public:
    const unsigned char* data() const noexcept { return m_block.get() + m_begin; }
    unsigned char* data() noexcept { return m_block.get() + m_begin; }
    std::size_t size() const noexcept { return m_end - m_begin; }

    /// `count` bytes more at the end, to be filled by the caller.
    unsigned char* extend(std::size_t count)
    {
        if (m_capacity - m_end < count) {
            makeRoom(count);
        }
        unsigned char* const at = m_block.get() + m_end;
        m_end += count;
        return at;
    }
    void append(const void* from, std::size_t count)
    {
        if (count > 0) {
            std::memcpy(extend(count), from, count);
        }
    }
    /// Takes bytes back from the end.
    void truncate(std::size_t size)
    {
        m_end = m_begin + size;
        shrink();
    }
    void consume(std::size_t count)
    {
        m_begin += count;
        if (m_begin == m_end) {
            m_begin = 0;
            m_end = 0;
        }
        shrink();
    }
    std::size_t capacityForTest() const noexcept { return m_capacity; }

private:
    static constexpr std::size_t FIRST_BYTES = 4U << 10U;
    static constexpr std::size_t KEPT_BYTES = 256U << 10U;

    // Out of line, and so not where `extend` is inlined.
    [[gnu::noinline]] void makeRoom(std::size_t count)
    {
        const std::size_t used = size();
        if (m_begin >= used && m_capacity - used >= count) {
            std::memcpy(m_block.get(), m_block.get() + m_begin, used);
            m_begin = 0;
            m_end = used;
        } else {
            move(std::max({FIRST_BYTES, 2 * m_capacity, used + count}));
        }
    }
    void shrink()
    {
        if (m_capacity > KEPT_BYTES && size() < m_capacity / 8) {
            move(2 * size());
        }
    }
    [[gnu::noinline]] void move(std::size_t capacity)
    {
        const std::size_t used = size();
        std::unique_ptr<unsigned char[]> block(capacity > 0 ? new unsigned char[capacity] : nullptr);
        if (used > 0) {
            std::memcpy(block.get(), m_block.get() + m_begin, used);
        }
        m_block = std::move(block);
        m_capacity = capacity;
        m_begin = 0;
        m_end = used;
    }

    std::unique_ptr<unsigned char[]> m_block;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

} // namespace kesa::commadapter::protocol

#endif
