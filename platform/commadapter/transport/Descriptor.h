#ifndef KESA_COMMADAPTER_TRANSPORT_DESCRIPTOR_H
#define KESA_COMMADAPTER_TRANSPORT_DESCRIPTOR_H

#include <comm/AtFork.h>

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kesa::commadapter::transport {

/// Owns a descriptor. In a child made by `fork` it is closed already and left alone.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : m_descriptor(descriptor), m_generation(comm::AtFork::generation())
    {
        if (descriptor >= 0) {
            comm::AtFork::closeInChild(descriptor);
        }
    }
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept
        : m_descriptor(std::exchange(other.m_descriptor, -1)), m_generation(other.m_generation)
    {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_descriptor = std::exchange(other.m_descriptor, -1);
            m_generation = other.m_generation;
        }
        return *this;
    }

    void reset()
    {
        if (isHere()) {
            comm::AtFork::forget(m_descriptor);
            ::close(m_descriptor);
        }
        m_descriptor = -1;
    }

    int get() const noexcept { return m_descriptor; }
    explicit operator bool() const noexcept { return m_descriptor >= 0; }
    /// False also in a child of the process that opened it.
    bool isHere() const noexcept { return m_descriptor >= 0 && m_generation == comm::AtFork::generation(); }

private:
    int m_descriptor = -1;
    unsigned m_generation = 0;
};

/// Makes a system call again as long as a signal interrupts it.
template <class Call>
auto retryInterrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

} // namespace kesa::commadapter::transport

#endif
