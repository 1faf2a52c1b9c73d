#ifndef KESA_COMMADAPTER_PROTOCOL_RECEIVEBLOCK_H
#define KESA_COMMADAPTER_PROTOCOL_RECEIVEBLOCK_H

#include "protocol/Frame.h"

#include <cstddef>
#include <memory>
#include <utility>

namespace kesa::commadapter::protocol {

/// The block that the frames of one connection arrive in, while any do. Most connections are idle at any time, so those
/// of a thread lend each other one.
class ReceiveBlock {
public:
    /// Any frame fits as a whole, and the header of the next: what follows a first fragment then goes straight into
    /// place.
    static constexpr std::size_t BYTES = HEADER_BYTES + FRAME_BYTES + HEADER_BYTES;

    unsigned char* get()
    {
        if (m_block == nullptr) {
            m_block =
                s_spare != nullptr ? std::move(s_spare) : std::unique_ptr<unsigned char[]>(new unsigned char[BYTES]);
        }
        return m_block.get();
    }
    /// What is in it is not needed any more.
    void giveBack() noexcept
    {
        if (m_block != nullptr) {
            s_spare = std::move(m_block);
        }
    }

private:
    inline static thread_local std::unique_ptr<unsigned char[]> s_spare;
    std::unique_ptr<unsigned char[]> m_block;
};

} // namespace kesa::commadapter::protocol

#endif
