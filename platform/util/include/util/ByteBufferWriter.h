#ifndef UTIL_BYTEBUFFERWRITER_H
#define UTIL_BYTEBUFFERWRITER_H

#include <obr/api.h>

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

namespace util {

/// Bytes that grow at the end. Move-only: the bytes go on into a payload without being copied.
class KESA_API ByteBufferWriter {
public:
    explicit ByteBufferWriter(std::size_t capacity) { m_bytes.reserve(capacity); }
    ByteBufferWriter(ByteBufferWriter&&) noexcept = default;
    ByteBufferWriter& operator=(ByteBufferWriter&&) noexcept = default;

    void append(const void* data, std::size_t size)
    {
        const auto* const bytes = static_cast<const unsigned char*>(data);
        m_bytes.insert(m_bytes.end(), bytes, bytes + size);
    }
    void append(std::string_view text) { append(text.data(), text.size()); }
    void append(char byte) { m_bytes.push_back(static_cast<unsigned char>(byte)); }

    const unsigned char* data() const noexcept { return m_bytes.data(); }
    unsigned char* data() noexcept { return m_bytes.data(); }
    std::size_t size() const noexcept { return m_bytes.size(); }
    std::string_view text() const noexcept { return {reinterpret_cast<const char*>(m_bytes.data()), m_bytes.size()}; }
    void clear() noexcept { m_bytes.clear(); }

    /// Hands the bytes over and is empty afterwards.
    std::vector<unsigned char> take() noexcept { return std::move(m_bytes); }

private:
    std::vector<unsigned char> m_bytes;
};

} // namespace util

#endif
