#ifndef BENCH_MESSAGE_H
#define BENCH_MESSAGE_H

#include "clocks.h"
#include "require.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace bench {

constexpr std::size_t MESSAGE_BYTES = 64;

/// What the benchmarks send to and fro: a number, the time it was made, and bytes that follow from the number.
struct Message {
    std::uint64_t number = 0;
    std::int64_t sentAt = 0;
    std::array<unsigned char, MESSAGE_BYTES - 16> body{};

    static Message make(std::uint64_t number)
    {
        Message message{number, wallNs(), {}};
        for (std::size_t i = 0; i < message.body.size(); ++i) {
            message.body[i] = static_cast<unsigned char>(number + i);
        }
        return message;
    }
    static Message read(const void* data, std::size_t size)
    {
        Message message;
        require(size == sizeof message, "size of a message");
        std::memcpy(&message, data, sizeof message);
        return message;
    }
    void check(std::uint64_t expected) const
    {
        require(number == expected, "order of the answers");
        for (std::size_t i = 0; i < body.size(); ++i) {
            require(body[i] == static_cast<unsigned char>(expected + i), "bytes of the answer");
        }
    }
};
static_assert(sizeof(Message) == MESSAGE_BYTES);

} // namespace bench

#endif
