// What `kesa-registryd` tells the service manager: that it answers, as long as it does.

#include "SystemTest.h"

#include <gmock/gmock.h>

#include <poll.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace kesa::system_test {
namespace {

/// What a service started here tells its manager.
class Manager {
public:
    explicit Manager(const std::string& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
        ::setenv("WATCHDOG_USEC", "300000", 1);
    }
    ~Manager()
    {
        ::unsetenv("NOTIFY_SOCKET");
        ::unsetenv("WATCHDOG_USEC");
        ::close(m_socket);
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    /// Empty: nothing within the time.
    std::string hear(std::chrono::milliseconds within = LIMIT) const
    {
        pollfd waited{m_socket, POLLIN, 0};
        std::array<char, 4096> text{};
        const bool isThere = ::poll(&waited, 1, static_cast<int>(within.count())) > 0;
        const ssize_t size = isThere ? ::read(m_socket, text.data(), text.size()) : 0;
        return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
    }

private:
    const int m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

/// One thread of a process that stands still, while the others go on.
class Standstill {
public:
    Standstill(pid_t process, const std::string& thread)
    {
        for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
            std::string name;
            std::getline(std::ifstream(task.path() / "comm"), name);
            if (name == thread) {
                m_thread = std::stoi(task.path().filename());
            }
        }
        m_isHeld = m_thread != 0 && ::ptrace(PTRACE_SEIZE, m_thread, nullptr, nullptr) == 0 &&
                   ::ptrace(PTRACE_INTERRUPT, m_thread, nullptr, nullptr) == 0 &&
                   ::waitpid(m_thread, nullptr, __WALL) == m_thread;
    }
    ~Standstill() { ::ptrace(PTRACE_DETACH, m_thread, nullptr, nullptr); }
    Standstill(const Standstill&) = delete;
    Standstill& operator=(const Standstill&) = delete;

    bool isHeld() const { return m_isHeld; }

private:
    pid_t m_thread = 0;
    bool m_isHeld = false;
};

class SystemWatchdog : public SystemTest {};

TEST_F(SystemWatchdog, IsToldWhileTheRegistryAnswersAndNoLonger)
{
    const Manager manager(pathOf("manager"));
    const Process& registry = startRegistry();
    EXPECT_THAT(manager.hear(), testing::HasSubstr("READY=1"));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(manager.hear(), "WATCHDOG=1");
    }
    {
        const Standstill loop(registry.pid(), "kesa-io");
        if (!loop.isHeld()) {
            GTEST_SKIP() << "this machine lets no thread be stopped";
        }
        const std::chrono::milliseconds allIsTold(1000); // at most one was under way
        for (int i = 0; i < 2 && !manager.hear(allIsTold).empty(); ++i) {
            ASSERT_EQ(i, 0) << "it is told though the loop stands still";
        }
    }
    EXPECT_EQ(manager.hear(), "WATCHDOG=1");
}

} // namespace
} // namespace kesa::system_test
