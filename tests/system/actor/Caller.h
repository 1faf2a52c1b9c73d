#ifndef KESA_TESTS_SYSTEM_ACTOR_CALLER_H
#define KESA_TESTS_SYSTEM_ACTOR_CALLER_H

#include <kesa/IKesaApi.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

/// Calls a service again and again on a thread of its own, until a call fails: that is said as "call-failed STATUS
/// TEXT".
class Caller {
public:
    explicit Caller(std::shared_ptr<kesa::IKesaApi> api);
    ~Caller();
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    /// Returns when `count` more calls have been answered, or one has failed.
    void awaitCalls(std::uint64_t count);

private:
    void run();

    const std::shared_ptr<kesa::IKesaApi> m_api;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::uint64_t m_answered = 0; ///< under `m_mutex`
    bool m_hasFailed = false;     ///< under `m_mutex`
    bool m_isStopped = false;     ///< under `m_mutex`
    std::thread m_thread;
};

#endif
