#ifndef KESA_COMMADAPTER_PROTOCOL_TRAILINGBYTES_H
#define KESA_COMMADAPTER_PROTOCOL_TRAILINGBYTES_H

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace kesa::commadapter::protocol {

/// Allocates `extra` bytes behind the object, and tells where they are.
template <class T>
class TrailingAllocator {
public:
    using value_type = T;

    TrailingAllocator(std::size_t extra, unsigned char** bytes) noexcept : m_extra(extra), m_bytes(bytes) {}
    template <class U>
    TrailingAllocator(const TrailingAllocator<U>& other) noexcept : m_extra(other.extra()), m_bytes(other.bytes())
    {}

    T* allocate(std::size_t count)
    {
        void* const block = ::operator new(count * sizeof(T) + m_extra);
        *m_bytes = static_cast<unsigned char*>(block) + count * sizeof(T);
        return static_cast<T*>(block);
    }
    void deallocate(T* block, std::size_t) noexcept { ::operator delete(block); }

    std::size_t extra() const noexcept { return m_extra; }
    unsigned char** bytes() const noexcept { return m_bytes; }
    friend bool operator==(const TrailingAllocator&, const TrailingAllocator&) noexcept { return true; }

private:
    std::size_t m_extra;
    unsigned char** m_bytes; // of use during `allocate` only
};

/// A shared object and `count` bytes that live as long as it, in one allocation.
template <class T, class... A>
std::shared_ptr<T> makeWithBytes(std::size_t count, unsigned char*& bytes, A&&... arguments)
{
    return std::allocate_shared<T>(TrailingAllocator<T>(count, &bytes), std::forward<A>(arguments)...);
}

} // namespace kesa::commadapter::protocol

#endif
