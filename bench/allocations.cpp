#include "allocations.h"

#include <cstdlib>
#include <new>

namespace bench {

std::atomic<std::uint64_t>* allocationCount = nullptr;

} // namespace bench

void* operator new(std::size_t size)
{
    if (bench::allocationCount != nullptr) {
        bench::allocationCount->fetch_add(1, std::memory_order_relaxed);
    }
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
