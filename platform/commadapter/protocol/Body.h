#ifndef KESA_COMMADAPTER_PROTOCOL_BODY_H
#define KESA_COMMADAPTER_PROTOCOL_BODY_H

#include <cstddef>
#include <memory>
#include <span>

namespace kesa::commadapter::protocol {

/// The block of a body that arrives in pieces. It grows with what arrives: at no time does it hold more than
/// `FIRST_BYTES`, `atOnce` or four times what is there, whatever size was declared.
class Body {
public:
    static constexpr std::size_t FIRST_BYTES = 64U << 10U;

    /// `atOnce`: what the sender has earned; its block need not grow up to that size, and no byte is moved.
    explicit Body(std::size_t declared, std::size_t atOnce = 0) noexcept : m_declared(declared), m_atOnce(atOnce) {}

    std::size_t declared() const noexcept { return m_declared; }
    std::size_t size() const noexcept { return m_size; }
    std::size_t missing() const noexcept { return m_declared - m_size; }
    std::size_t capacity() const noexcept { return m_capacity; }

    /// Where the next bytes belong: at least one, at most `wanted`. Only while bytes are missing.
    std::span<unsigned char> room(std::size_t wanted);
    /// `count` bytes were put at the start of `room`.
    void arrived(std::size_t count) noexcept { m_size += count; }
    void append(const unsigned char* from, std::size_t count);

    const unsigned char* data() const noexcept { return m_block.get(); }
    /// Hands the block over.
    std::shared_ptr<const void> take() { return std::shared_ptr<unsigned char>(m_block.release(), Free()); }

private:
    struct Free {
        void operator()(unsigned char* block) const noexcept;
    };
    std::unique_ptr<unsigned char, Free> m_block;
    std::size_t m_declared;
    std::size_t m_atOnce;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
};

} // namespace kesa::commadapter::protocol

#endif
