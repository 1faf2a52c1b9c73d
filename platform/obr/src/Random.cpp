#include <obr/GlobalErrorHandler.h>
#include <obr/Random.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <pthread.h>
#include <sys/random.h>

namespace obr {
namespace {

/// Counts up in every forked child, so that what the parent had drawn ahead is not used twice.
std::atomic<unsigned> g_generation{1};

/// Numbers drawn ahead by one thread. Trivial, so that it can be used until the thread is gone.
struct Ahead {
    std::array<std::uint64_t, 32> words;
    unsigned left;
    unsigned generation;
};
thread_local Ahead t_ahead{};

void fill(void* data, std::size_t size)
{
    auto* bytes = static_cast<unsigned char*>(data);
    while (size > 0) {
        const ssize_t got = ::getrandom(bytes, size, 0);
        if (got > 0) {
            bytes += got;
            size -= static_cast<std::size_t>(got);
        } else if (errno != EINTR) {
            GlobalErrorHandler::doAbort(__FILE__, __LINE__, __func__, "the kernel gives no random numbers");
        }
    }
}

class KernelRandom final : public Random {
public:
    KernelRandom()
    {
        ::pthread_atfork(nullptr, nullptr, [] { g_generation.fetch_add(1, std::memory_order_relaxed); });
    }

    std::uint64_t next() override
    {
        Ahead& ahead = t_ahead;
        // It changes in the child of a fork alone, before that has a second thread.
        const unsigned generation = g_generation.load(std::memory_order_relaxed);
        if (ahead.left == 0 || ahead.generation != generation) {
            fill(ahead.words.data(), sizeof ahead.words);
            ahead.left = static_cast<unsigned>(ahead.words.size());
            ahead.generation = generation;
        }
        std::uint64_t& word = ahead.words[--ahead.left];
        const std::uint64_t result = word;
        word = 0;
        return result;
    }
};

std::atomic<Random*> g_installed{nullptr};

} // namespace

Random::~Random() = default;

std::uint64_t Random::below(std::uint64_t bound)
{
    if (bound == 0) {
        return 0;
    }
    // The first 2^64 mod `bound` numbers would make some results likelier. A source that is stuck in them ends too.
    const std::uint64_t unfair = (0 - bound) % bound;
    std::uint64_t number = next();
    for (int tries = 0; number < unfair && tries < 64; ++tries) {
        number = next();
    }
    return number % bound;
}

Random& Random::current() noexcept
{
    if (Random* installed = g_installed.load(std::memory_order_acquire)) {
        return *installed;
    }
    static KernelRandom* const kernel = new KernelRandom;
    return *kernel;
}

Random* Random::install(Random* random) noexcept
{
    return g_installed.exchange(random, std::memory_order_acq_rel);
}

} // namespace obr
