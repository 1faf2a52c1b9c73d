#ifndef UTIL_BYTEBUFFERREADER_H
#define UTIL_BYTEBUFFERREADER_H

#include <obr/api.h>

#include <cstddef>
#include <string_view>
#include <vector>

namespace util {

/// Bytes to read from. They outlive the reader, unless `copy` is true: then it keeps its own.
class KESA_API ByteBufferReader {
public:
    ByteBufferReader(const void* data, std::size_t size, bool copy)
        : m_data(static_cast<const unsigned char*>(data)), m_size(size)
    {
        if (copy && size > 0) {
            m_copy.assign(m_data, m_data + size);
            m_data = m_copy.data();
        }
    }
    ByteBufferReader(const ByteBufferReader&) = delete;
    ByteBufferReader& operator=(const ByteBufferReader&) = delete;

    const unsigned char* data() const noexcept { return m_data; }
    std::size_t size() const noexcept { return m_size; }
    std::string_view text() const noexcept { return {reinterpret_cast<const char*>(m_data), m_size}; }

private:
    std::vector<unsigned char> m_copy;
    const unsigned char* m_data;
    std::size_t m_size;
};

} // namespace util

#endif
