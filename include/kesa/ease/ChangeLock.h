#ifndef KESA_EASE_CHANGELOCK_H
#define KESA_EASE_CHANGELOCK_H

#include <obr/api.h>

#include <atomic>
#include <mutex>

namespace kesa::detail {

/// A lock around a change of a `Property`. Who makes another change of it from inside of one would wait for itself:
/// that is a failed assertion, and throws `std::logic_error` where it returns.
class KESA_API ChangeLock {
public:
    void lock();
    void unlock();

private:
    std::mutex m_mutex;
    std::atomic<const void*> m_owner{nullptr}; ///< what each thread has its own of
};

} // namespace kesa::detail

#endif
