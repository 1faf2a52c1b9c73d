#ifndef KESA_TESTS_SYSTEM_INTRUDERS_H
#define KESA_TESTS_SYSTEM_INTRUDERS_H

#include "Process.h"
#include "RawPeer.h"

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <string>

namespace kesa::system_test {

/// A child with the rights of a stranger: it acts, and then keeps its connections until the object goes. Only root can
/// make one.
class Intruder {
public:
    /// `told` is for `sayWord`, by who does not come to an end.
    using Act = std::function<void(std::deque<RawPeer>& peers, int told)>;
    explicit Intruder(const Act& act);
    ~Intruder();
    Intruder(const Intruder&) = delete;
    Intruder& operator=(const Intruder&) = delete;

    /// Returns when it has said something, or done what it had to.
    void awaitWord() const;
    static void sayWord(int told);

private:
    [[noreturn]] static void run(const Act& act, int told, pid_t parent);

    pid_t m_pid = -1;
    int m_told = -1;
};

/// Whom it acts on, and what that provides.
struct Victim {
    Process& process;
    const char* path;
};

// What peers do that keep every rule.

/// Many large messages at once, none of which ever ends.
void sendUnfinished(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim);
void attachLongPaths(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim);
/// On many connections, requests whose numbers are as far from each other as they can be, and that stay open.
void useAllNumbers(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim);
void connectOften(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim, std::size_t times);
/// Asks on many connections, and takes every answer; for ever. Says a word once all have begun.
void askForEver(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim, int told);
/// Asks on many connections as much as there is credit for, and takes no answer.
void askAndReadNothing(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim);

// And one that does not.

/// Asks without credit, until it is cut off.
void askBeyondTheWindow(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim);

} // namespace kesa::system_test

#endif
