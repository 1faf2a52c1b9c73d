#ifndef COMM_RECYCLE_H
#define COMM_RECYCLE_H

#include <cstddef>
#include <vector>

namespace comm {

/// Empties a list whose memory is used again, unless a burst has made it large.
template <class T>
void recycle(std::vector<T>& list)
{
    constexpr std::size_t LARGE = 4096;
    list.clear();
    if (list.capacity() > LARGE) {
        list.shrink_to_fit();
    }
}

} // namespace comm

#endif
