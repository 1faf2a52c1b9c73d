#ifndef COMM_LOOPTHREAD_H
#define COMM_LOOPTHREAD_H

#include <comm/onAnyLoop.h>
#include <pthread.h>

#include <functional>
#include <mutex>
#include <string>

namespace comm {

/// The kernel's name for the thread of a loop: "kesa-" and what follows the last '.', without "m_", 15 characters.
std::string threadName(const std::string& loopName);

/// The thread of one loop. It lives in what the loop and its thread share, so it outlives both uses.
class LoopThread {
public:
    explicit LoopThread(const std::string& loopName, Reactor* reactor = nullptr);

    /// Runs `body` on a new thread, which takes no signals. Ends the process when there is no thread to be had.
    void start(std::function<void()> body);
    bool isCurrent() const noexcept;
    /// Waits for the end of `body`; any number of times, from any other thread.
    void join();
    /// The same; calls `tell`, once, when that takes a second.
    void join(const std::function<void()>& tell);
    /// Nobody will join: what ends the thread runs on it.
    void detach();

    /// False where nothing of the loop exists: in a child made by `fork`. A use there is a failed assertion.
    [[nodiscard]] bool isHere() const noexcept;
    [[nodiscard]] bool isUsable(const char* function) const;
    /// False, after a failed assertion, on the loop itself and in a child made by `fork`.
    [[nodiscard]] bool mayStop(const char* function) const;

    const std::string& loopName() const noexcept { return m_loopName; }
    const LoopInfo& info() const noexcept { return m_info; }

private:
    const std::string m_loopName;
    const LoopInfo m_info;
    const unsigned m_generation;
    pthread_t m_thread{};
    std::mutex m_joinMutex;  ///< several threads may stop a loop; each returns when its thread has ended
    bool m_isJoined = false; ///< under that
};

} // namespace comm

#endif
