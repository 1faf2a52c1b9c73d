#include "HeapTrimmer.h"

#include <malloc.h>
#include <unistd.h>

#include <fstream>

namespace registryd {

namespace {

/// Code, stacks, and what is not worth the time.
constexpr std::size_t SLACK = 16U << 20U;
constexpr std::size_t NOTICEABLE = 4U << 20U;

bool areClose(std::size_t a, std::size_t b)
{
    return (a > b ? a - b : b - a) < NOTICEABLE;
}

std::size_t residentBytes()
{
    std::size_t all = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

} // namespace

HeapTrimmer::Usage HeapTrimmer::measure()
{
    const auto heap = ::mallinfo2();
    return {heap.uordblks + heap.hblkhd, residentBytes()};
}

void HeapTrimmer::look()
{
    const Usage now = measure();
    const bool isAsBefore = areClose(now.inUse, m_left.inUse) && areClose(now.resident, m_left.resident);
    if (now.resident > now.inUse + SLACK && !isAsBefore) {
        ::malloc_trim(0);
        m_left = measure();
    }
}

} // namespace registryd
