#ifndef KESA_COMMADAPTER_TRANSPORT_DESCRIPTOR_H
#define KESA_COMMADAPTER_TRANSPORT_DESCRIPTOR_H

#include <comm/OwnDescriptors.h>

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kesa::commadapter::transport {

/// Owns a descriptor. In a child made by `fork` it is closed already and left alone.
class Descriptor {
public:
    Descriptor() = default;
    /// Owns what `open` answers, which is called at once: a descriptor, or -1 with an `errno` that stays.
    template <class Open>
    static Descriptor open(Open&& open)
    {
        Descriptor opened;
        opened.m_generation = comm::OwnDescriptors::generation();
        opened.m_descriptor = comm::OwnDescriptors::open(std::forward<Open>(open));
        return opened;
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
            comm::OwnDescriptors::close(m_descriptor);
        }
        m_descriptor = -1;
    }

    int get() const noexcept { return m_descriptor; }
    explicit operator bool() const noexcept { return m_descriptor >= 0; }
    /// False also in a child of the process that opened it.
    bool isHere() const noexcept { return m_descriptor >= 0 && m_generation == comm::OwnDescriptors::generation(); }

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

/// Owns what `open` answers; a signal that interrupts it makes it be called again.
template <class Open>
Descriptor openFile(Open open)
{
    return Descriptor::open([&open] { return retryInterrupted(open); });
}

} // namespace kesa::commadapter::transport

#endif
