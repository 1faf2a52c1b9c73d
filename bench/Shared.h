#ifndef BENCH_SHARED_H
#define BENCH_SHARED_H

#include "require.h"

#include <semaphore.h>
#include <sys/mman.h>

#include <cerrno>
#include <ctime>
#include <new>

namespace bench {

/// An object that processes forked later share.
template <class T>
class Shared {
public:
    Shared()
    {
        void* const memory = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        require(memory != MAP_FAILED, "mmap");
        m_object = new (memory) T;
    }
    ~Shared() { ::munmap(m_object, sizeof(T)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    T& operator*() const noexcept { return *m_object; }
    T* operator->() const noexcept { return m_object; }

private:
    T* m_object;
};

/// Something that happened, for another thread that waits for it, or for another process (it lies in `Shared` then).
/// Each `give` ends one `take`.
class Signal {
public:
    enum class Between { eTHREADS, ePROCESSES };
    explicit Signal(Between between = Between::ePROCESSES)
    {
        require(::sem_init(&m_semaphore, between == Between::ePROCESSES ? 1 : 0, 0) == 0, "sem_init");
    }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    void give(int count = 1)
    {
        for (int i = 0; i < count; ++i) {
            ::sem_post(&m_semaphore);
        }
    }
    /// What never comes is a failure.
    void take(const char* what)
    {
        timespec until{};
        ::clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += 120;
        int result = 0;
        do {
            result = ::sem_timedwait(&m_semaphore, &until);
        } while (result != 0 && errno == EINTR);
        require(result == 0, what);
    }

private:
    sem_t m_semaphore{};
};

} // namespace bench

#endif
