#ifndef UTIL_BYTEBUFFERWRITER_H
#define UTIL_BYTEBUFFERWRITER_H

#include <obr/api.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace util {

/// Bytes that grow at the end. Move-only: the bytes go on into a payload without being copied.
class KESA_API ByteBufferWriter {
public:
    explicit ByteBufferWriter(std::size_t capacity) : m_bytes(new unsigned char[capacity]), m_capacity(capacity) {}
    ByteBufferWriter(ByteBufferWriter&& other) noexcept
        : m_bytes(std::move(other.m_bytes)), m_size(std::exchange(other.m_size, 0)),
          m_capacity(std::exchange(other.m_capacity, 0))
    {}
    ByteBufferWriter& operator=(ByteBufferWriter&& other) noexcept
    {
        m_size = std::exchange(other.m_size, 0);
        m_capacity = std::exchange(other.m_capacity, 0);
        m_bytes = std::move(other.m_bytes);
        return *this;
    }

    void append(const void* data, std::size_t size)
    {
        if (size > m_capacity - m_size) {
            grow(size);
        }
        if (size > 0) {
            std::memcpy(m_bytes.get() + m_size, data, size);
            m_size += size;
        }
    }
    /// The first of `size` new bytes at the end, which the caller writes.
    unsigned char* extend(std::size_t size)
    {
        if (size > m_capacity - m_size) {
            grow(size);
        }
        return m_bytes.get() + std::exchange(m_size, m_size + size);
    }
    void append(std::string_view text) { append(text.data(), text.size()); }
    void append(char byte) { *extend(1) = static_cast<unsigned char>(byte); }

    const unsigned char* data() const noexcept { return m_bytes.get(); }
    unsigned char* data() noexcept { return m_bytes.get(); }
    std::size_t size() const noexcept { return m_size; }
    std::string_view text() const noexcept { return {reinterpret_cast<const char*>(m_bytes.get()), m_size}; }
    void clear() noexcept { m_size = 0; }

    /// Hands the bytes over and is empty afterwards.
    std::unique_ptr<unsigned char[]> take() noexcept
    {
        m_size = m_capacity = 0;
        return std::move(m_bytes);
    }

private:
    void grow(std::size_t more);

    std::unique_ptr<unsigned char[]> m_bytes;
    std::size_t m_size = 0;
    std::size_t m_capacity;
};

} // namespace util

#endif
