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
/// One that the program has blocked itself, or has a handler for, is left as it is until `wait`, which takes both. So
/// is one that a handler is installed for later: that runs in the thread here.
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
    void takeAll();
    void startTaking();
    void take();
    void come(int signal);
    void letThrough();

    sigset_t m_before{};
    std::shared_ptr<comm::Reactor> m_loop; ///< null until it takes them
    int m_descriptor = -1;                 ///< of the signals that are pending
    comm::Reactor::Id m_watch = 0;         ///< of the loop
    std::atomic<bool> m_hasSaidIgnored{false};

    std::mutex m_mutex; ///< of what follows: the loop takes the signals, a thread of the program's waits for one
    comm::Condition m_changed;
    sigset_t m_taken;        ///< what the descriptor tells of
    bool m_takesAll = false; ///< whatever handlers there are: it has been waited
    int m_signal = 0;        ///< the first
};

} // namespace kesa::detail

#endif
