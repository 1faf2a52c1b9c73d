#include <util/ByteBufferWriter.h>

#include <algorithm>

namespace util {

void ByteBufferWriter::grow(std::size_t more)
{
    const std::size_t capacity = std::max(m_size + more, 2 * m_capacity);
    std::unique_ptr<unsigned char[]> bytes(new unsigned char[capacity]);
    if (m_size > 0) {
        std::memcpy(bytes.get(), m_bytes.get(), m_size);
    }
    m_bytes = std::move(bytes);
    m_capacity = capacity;
}

} // namespace util
