// The table's lock is held across `fork`, so the child finds the table whole; between `fork` and the end of the child's
// handler only functions that are safe in a signal handler are called.
#include <comm/OwnDescriptors.h>

#include <obr/GlobalErrorHandler.h>

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace comm {

namespace {

struct Table {
    std::mutex mutex; ///< of `descriptors`: loops are made and end in any thread, and a fork finds the list whole
    std::vector<int> descriptors;
    std::atomic<unsigned> generation{1};
};

/// The same descriptors once more, for the handler of a signal, which may take no lock: a bit for each. In one order
/// with `hasCrashed`: what is inserted is seen by the handler, or sees that.
class SignalSafeSet {
public:
    void insert(int descriptor) noexcept
    {
        if (const std::size_t number = static_cast<std::size_t>(descriptor); number < MOST) {
            m_words[number / 64].fetch_or(bit(number));
        }
    }
    void erase(int descriptor) noexcept
    {
        if (const std::size_t number = static_cast<std::size_t>(descriptor); number < MOST) {
            m_words[number / 64].fetch_and(~bit(number));
        }
    }
    template <class Call>
    void forEach(Call call) const noexcept
    {
        for (std::size_t number = 0; number < MOST; ++number) {
            if ((m_words[number / 64].load() & bit(number)) != 0) {
                call(static_cast<int>(number));
            }
        }
    }

private:
    static constexpr std::size_t MOST = 65536;
    static std::uint64_t bit(std::size_t number) noexcept { return std::uint64_t{1} << number % 64; }
    std::array<std::atomic<std::uint64_t>, MOST / 64> m_words{};
};

constinit SignalSafeSet signalSafe;
std::atomic<bool> hasCrashed{false};

Table& table();

void prepare()
{
    table().mutex.lock();
}

void inParent()
{
    table().mutex.unlock();
}

void inChild()
{
    Table& own = table();
    own.generation.fetch_add(1, std::memory_order_relaxed);
    hasCrashed = false;
    for (const int descriptor : own.descriptors) {
        signalSafe.erase(descriptor);
        ::close(descriptor);
    }
    own.descriptors.clear();
    own.mutex.unlock();
}

Table* makeTable()
{
    if (::pthread_atfork(prepare, inParent, inChild) != 0) {
        obr::GlobalErrorHandler::doAbort(__FILE__, __LINE__, __func__, "no memory for fork handlers");
    }
    return new Table;
}

// Never destroyed: loops may run until the process is gone.
Table& table()
{
    static Table& instance = *makeTable();
    return instance;
}

} // namespace

int OwnDescriptors::open(const std::function<int()>& open)
{
    Table& own = table();
    const std::lock_guard lock(own.mutex);
    if (hasCrashed) {
        errno = ESHUTDOWN;
        return -1;
    }
    own.descriptors.push_back(-1); // before there is something to lose
    const int descriptor = open();
    if (descriptor >= 0) {
        own.descriptors.back() = descriptor;
        signalSafe.insert(descriptor);
        if (hasCrashed) { // meanwhile
            ::shutdown(descriptor, SHUT_RDWR);
        }
    } else {
        own.descriptors.pop_back();
    }
    return descriptor;
}

void OwnDescriptors::close(int descriptor)
{
    Table& own = table();
    const std::lock_guard lock(own.mutex);
    const auto found = std::find(own.descriptors.rbegin(), own.descriptors.rend(), descriptor);
    if (found != own.descriptors.rend()) {
        *found = own.descriptors.back();
        own.descriptors.pop_back();
        signalSafe.erase(descriptor);
    }
    ::close(descriptor);
}

void OwnDescriptors::endSockets() noexcept
{
    hasCrashed = true;
    signalSafe.forEach([](int descriptor) { ::shutdown(descriptor, SHUT_RDWR); }); // what is no socket stays as it is
}

unsigned OwnDescriptors::generation() noexcept
{
    // It changes in the child of a fork alone, before that has a second thread.
    return table().generation.load(std::memory_order_relaxed);
}

} // namespace comm
