// Signals belong to the process, not to the libraries in it.

#include "SystemTest.h"

#include <sys/wait.h>

#include <csignal>

namespace kesa::system_test {
namespace {

const std::string PLAYER = "ipc://media/player";

using SystemSignals = SystemTest;

TEST_F(SystemSignals, TermDoesWhatTheProcessSays)
{
    Process& watcher = start("watcher");
    watcher.send("resolve " + PLAYER);
    Process& handling = startProvider("media", "/player");
    watcher.expect("connected " + PLAYER);
    handling.send("handle-term");
    handling.expect("handling");
    for (int count = 0; count < 5; ++count) {
        handling.signal(SIGTERM);
        handling.send("handle-term"); // ThreadSanitizer calls a handler between two system calls only
        EXPECT_EQ(handling.expect("sigterm"), "main");
    }
    handling.signal(SIGWINCH);
    watcher.send("call after " + PLAYER + " /echo");
    watcher.expect("completed after");
    handling.send("quit");
    EXPECT_EQ(handling.expectEnd(), 0);
    watcher.expect("lost " + PLAYER);

    Process& plain = startProvider("media", "/player");
    watcher.expect("connected " + PLAYER);
    plain.signal(SIGTERM);
    const int status = plain.expectEnd();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    watcher.expect("lost " + PLAYER);
}

} // namespace
} // namespace kesa::system_test
