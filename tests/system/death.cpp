// What a death means where it is more than the end of a process: signals, children that are left behind. The scenarios
// have the rest.

#include "SystemTest.h"

#include <sys/wait.h>

#include <csignal>
#include <filesystem>

namespace kesa::system_test {
namespace {

namespace fs = std::filesystem;

using SystemDeath = SystemTest;

/// What a process has open that no child of it should have.
std::vector<std::string> describeDescriptors(pid_t pid)
{
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code ignored;
        const std::string target = fs::read_symlink(entry, ignored).string();
        if (target.find("socket:") == 0 || target.find("anon_inode:") == 0 ||
            target.find("/run/") != std::string::npos) {
            found.push_back(target);
        }
    }
    return found;
}

TEST_F(SystemDeath, SignalsBelongToTheProcessNotToTheLibrariesInIt)
{
    Process& provider = startProvider("media", "/player");
    provider.send("handle-term");
    provider.expect("handling");
    for (int count = 0; count < 5; ++count) {
        provider.signal(SIGTERM);
        provider.send("handle-term"); // ThreadSanitizer calls a handler between two system calls only
        EXPECT_EQ(provider.expect("sigterm"), "main");
    }
    provider.send("quit");
    EXPECT_EQ(provider.expectEnd(), 0);
    EXPECT_FALSE(isInRunDirectory("media.sock"));

    Process& plain = startProvider("media", "/player");
    plain.signal(SIGTERM);
    const int status = plain.expectEnd();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
}

// A program that is started inherits nothing. In a child that is forked, what the libraries have open is closed: it
// does not hold the name, and may not use the rest.
TEST_F(SystemDeath, AChildHoldsNothingAndMayUseNothing)
{
    startBystanders();
    Process& provider = startProvider("media", "/player");
    Process& watcher = startFollower("watcher", PLAYER);
    provider.send("spawn");
    EXPECT_EQ(describeDescriptors(std::stoi(provider.expect("spawned"))), std::vector<std::string>());
    provider.send("fork");
    const pid_t child = std::stoi(provider.expect("forked"));
    provider.kill();
    watcher.expect("error " + PLAYER + "#1 503");
    watcher.expect("lost " + PLAYER);
    provider.expect("orphaned");
    EXPECT_EQ(describeDescriptors(child), std::vector<std::string>());

    startProvider("media", "/player");
    watcher.expect("value " + PLAYER + "#2 0");

    provider.send("resolve " + PLAYER);
    provider.expectTrace("belongs to the parent process: after fork, a child may use nothing of Kesa");
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    expectUndisturbed();
}

// A child that was made behind the back of the fork handlers keeps every socket open. The death is seen all the same;
// the name is free once the child is gone.
TEST_F(SystemDeath, ADeathIsSeenThoughAChildKeepsTheSocketsOpen)
{
    startBystanders();
    Process& provider = startProvider("media", "/player");
    Process& watcher = startFollower("watcher", PLAYER);
    provider.send("fork raw");
    const pid_t child = std::stoi(provider.expect("forked"));
    provider.kill();
    provider.expect("orphaned");
    EXPECT_FALSE(describeDescriptors(child).empty());
    watcher.expect("error " + PLAYER + "#1 503");
    watcher.expect("lost " + PLAYER);

    Process& next = start("media");
    next.send("provide /player");
    next.expect("refused /player 409");
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    next.send("provide /player");
    next.expect("provided /player");
    watcher.expect("value " + PLAYER + "#2 0");

    expectUndisturbed();
}

} // namespace
} // namespace kesa::system_test
