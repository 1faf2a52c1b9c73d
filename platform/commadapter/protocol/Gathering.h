#ifndef KESA_COMMADAPTER_PROTOCOL_GATHERING_H
#define KESA_COMMADAPTER_PROTOCOL_GATHERING_H

#include <sys/uio.h>

#include <cstddef>
#include <span>

namespace kesa::commadapter::protocol {

/// What is to be written next, as it is put together.
struct Gathering {
    std::span<iovec> out;
    std::size_t count = 0;
    bool isFull = false; ///< there was no room for all of the last frame, or for the next

    /// Adds a stretch, joined with the one before it when it follows it in memory. Answers the bytes added.
    std::size_t add(const unsigned char* data, std::size_t size)
    {
        if (size == 0 || isFull) {
            return 0;
        }
        if (count > 0) {
            iovec& last = out[count - 1];
            if (static_cast<const unsigned char*>(last.iov_base) + last.iov_len == data) {
                last.iov_len += size;
                return size;
            }
        }
        if (count == out.size()) {
            isFull = true;
            return 0;
        }
        out[count++] = {const_cast<unsigned char*>(data), size};
        return size;
    }
};

} // namespace kesa::commadapter::protocol

#endif
