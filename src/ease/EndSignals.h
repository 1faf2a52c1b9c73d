#ifndef KESA_EASE_ENDSIGNALS_H
#define KESA_EASE_ENDSIGNALS_H

#include <comm/Condition.h>
#include <comm/Reactor.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <mutex>

namespace kesa::detail {

/// SIGINT and SIGTERM, blocked in the thread that makes this, and in those that it makes afterwards. The first one of
/// the process is taken by a thread of its own, which ends the waits (`Interruption`); what comes later does what it
/// would without us.
///
/// One that is ignored stays so; the first such one is traced (3) on "KESA_EASE".
///
/// What the program has blocked itself, or has handlers for, is left to it until `wait`.
class EndSignals {
public:
    EndSignals();
    EndSignals(const EndSignals&) = delete;
    EndSignals& operator=(const EndSignals&) = delete;
    /// Blocks them no longer, if it was the constructor that did. In the same thread.
    ~EndSignals();

    /// Which one has come; 0 when it is `deadline` first. Once one has, waits of this process go on.
    int wait(comm::TimeNs deadline);

private:
    void startTaking();
    void take();
    void come(int signal);
    void letThrough();

    const sigset_t m_signals;
    sigset_t m_before{};
    std::shared_ptr<comm::Reactor> m_loop; ///< null until it takes them
    int m_descriptor = -1;                 ///< of the signals that are pending
    comm::Reactor::Id m_watch = 0;         ///< of the loop
    std::atomic<bool> m_hasSaidIgnored{false};

    std::mutex m_mutex; ///< between the loop, which takes the signals, and the thread that waits for one
    comm::Condition m_changed;
    int m_signal = 0; ///< the first; under the mutex
};

} // namespace kesa::detail

#endif
