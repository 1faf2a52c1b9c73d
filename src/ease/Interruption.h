#ifndef KESA_EASE_INTERRUPTION_H
#define KESA_EASE_INTERRUPTION_H

#include <comm/Condition.h>

#include <mutex>
#include <string>

namespace kesa::detail {

/// That the process was told to end by a signal, for the blocking calls of all threads. One for the process, as signals
/// are. Any thread.
class Interruption {
public:
    /// Ends the waits under way, and those to come until `end`.
    static void begin(int signal);
    static void end();
    /// The signal; 0: none. Costs nothing.
    static int current() noexcept;
    /// "interrupted by SIGINT".
    static std::string text(int signal);

    /// A wait, which notifies `condition` when it is to end. Made before `mutex` is locked, and gone after it.
    class Wait {
    public:
        Wait(comm::Condition& condition, std::mutex& mutex);
        ~Wait();
        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;
        /// What has ended it, 0: nothing. With the mutex held.
        int signal() const noexcept { return m_signal; }

    private:
        friend class Interruption;
        comm::Condition& m_condition;
        std::mutex& m_mutex;
        int m_signal = 0;
        Wait* m_before = nullptr; ///< this and the next under the lock of all waits
        Wait* m_next = nullptr;
    };

private:
    struct Waits;
    static Waits& waits();
};

} // namespace kesa::detail

#endif
