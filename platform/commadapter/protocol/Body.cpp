#include "protocol/Body.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kesa::commadapter::protocol {

void Body::Free::operator()(unsigned char* block) const noexcept
{
    std::free(block);
}

std::span<unsigned char> Body::room(std::size_t wanted)
{
    if (m_size == m_capacity) {
        const std::size_t capacity = std::min(m_declared, std::max({FIRST_BYTES, m_atOnce, 4 * m_size}));
        void* const block = std::realloc(m_block.get(), capacity); // moves pages instead of bytes where it can
        if (block == nullptr) {
            throw std::bad_alloc();
        }
        static_cast<void>(m_block.release());
        m_block.reset(static_cast<unsigned char*>(block));
        m_capacity = capacity;
    }
    return {m_block.get() + m_size, std::min(wanted, m_capacity - m_size)};
}

void Body::append(const unsigned char* from, std::size_t count)
{
    while (count > 0) {
        const std::span<unsigned char> to = room(count);
        std::memcpy(to.data(), from, to.size());
        m_size += to.size();
        from += to.size();
        count -= to.size();
    }
}

} // namespace kesa::commadapter::protocol
