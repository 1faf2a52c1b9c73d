#ifndef KESA_TESTS_SYSTEM_PROCESS_H
#define KESA_TESTS_SYSTEM_PROCESS_H

#include "actor/Told.h"

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::system_test {

/// What a test waits for at most. Long, since it is waited for only when the test fails, and machines may be slow.
inline constexpr std::chrono::seconds LIMIT{90};

// Users that have nothing on a machine.
inline constexpr uid_t NOBODY = 65534;
inline constexpr uid_t STRANGER = 65533;

/// Something that should have happened did not: ends the test.
class Missing : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A child process that is told what to do in lines on its stdin, and tells what happens in lines on its stdout. Its
/// stderr, and with it its traces, goes to a file. It dies with the object, and with the test.
class Process {
public:
    struct Setup {
        std::string name;                     ///< in reports
        std::vector<std::string> arguments;   ///< the first one is the program
        std::vector<std::string> environment; ///< besides the test's own
        std::string directory;                ///< of the traces, and to run in
        uid_t user = 0; ///< runs with his rights, if the test runs with those of root; 0: the test's
    };
    explicit Process(const Setup& setup);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    const std::string& name() const { return m_name; }
    pid_t pid() const { return m_pid; }

    void send(const std::string& command);
    /// Waits for an event that is `beginning`, or begins with it and a space; the oldest that was not yet waited for.
    /// Returns what follows.
    std::string expect(const std::string& beginning, std::chrono::seconds limit = LIMIT);
    /// Whether such an event has come; takes it as `expect` does.
    bool hasTold(const std::string& beginning);
    /// Waits for a line on stderr, or for so many.
    void expectTrace(const std::string& text, std::size_t times = 1);
    std::size_t countTraces(const std::string& text) const;
    /// Waits for its end; the status as `waitpid` has it.
    int expectEnd();

    void signal(int number) const { ::kill(m_pid, number); }
    /// Returns when it stands still.
    void stop();
    void resume() const { signal(SIGCONT); }
    /// Returns when it is gone.
    void kill();

    /// Everything it told so far.
    const std::vector<std::string>& history() { return told().events(); }
    const actor::Told& told();
    /// What nobody waited for that begins so; empty when there is none.
    std::string findUnexpected(std::string_view beginning);
    /// What nobody waited for that is bad news.
    std::string findBad();
    /// Returns when one of them tells something, has ended, or at the deadline.
    static void waitForAny(const std::vector<Process*>& processes, std::chrono::steady_clock::time_point deadline);
    bool hasEnded();
    /// It has ended by a signal that no test sends.
    bool hasCrashed();
    std::string traces() const;
    const std::string& traceFile() const { return m_traceFile; }
    std::size_t residentKiB() const;
    std::size_t openDescriptors() const;
    /// From now on it can open so many more.
    void limitDescriptors(std::size_t more) const;
    void freeDescriptors() const; ///< as many as it may have

private:
    using Deadline = std::chrono::steady_clock::time_point;
    bool readEvents(Deadline deadline);
    [[noreturn]] void miss(const std::string& what);

    const std::string m_name;
    const std::string m_traceFile;
    pid_t m_pid = 0;
    bool m_isReaped = false;
    int m_status = 0;
    int m_commands = -1;
    int m_events = -1;
    std::string m_partial;
    actor::Told m_told;
};

} // namespace kesa::system_test

#endif
