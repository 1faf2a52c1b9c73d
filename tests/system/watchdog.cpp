// What `kesa-registryd` tells the service manager: that it answers, as long as it does, and without waiting for it.

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
        m_address.sun_family = AF_UNIX;
        path.copy(m_address.sun_path, sizeof m_address.sun_path - 1);
        EXPECT_EQ(::bind(m_socket, name(), sizeof m_address), 0);
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

    /// Others tell it so much that there is no room for more.
    void fillQueue() const
    {
        for (bool hasRoom = true; hasRoom;) { // one may have no more under way than its socket holds
            const int other = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            const auto send = [&] {
                return ::sendto(other, OTHERS.data(), OTHERS.size(), 0, name(), sizeof m_address) > 0;
            };
            hasRoom = send();
            while (send()) {
            }
            ::close(other);
        }
    }
    /// Whether it hears this, past all else.
    bool hears(const std::string& beginning) const
    {
        std::string text = hear();
        while (!text.empty() && !text.starts_with(beginning)) {
            text = hear();
        }
        return !text.empty();
    }

private:
    const sockaddr* name() const { return reinterpret_cast<const sockaddr*>(&m_address); }

    inline static const std::string OTHERS = "STATUS=of another process";

    sockaddr_un m_address{};
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

TEST_F(SystemWatchdog, NobodyWaitsForAManagerThatDoesNotRead)
{
    const Manager manager(pathOf("manager"));
    Process& registry = startRegistry();
    EXPECT_TRUE(manager.hears("READY=1"));
    manager.fillQueue();
    startProvider("media", "/player", WITH_REGISTRY);
    const auto someBeats = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    for (int i = 0; std::chrono::steady_clock::now() < someBeats; ++i) {
        discard(startClient("nav-" + std::to_string(i), "/player", WITH_REGISTRY));
    }
    registry.signal(SIGHUP);
    registry.expect("kesa-registryd: the policy has been read again:");
    EXPECT_TRUE(manager.hears("READY=1")) << "the newest state";
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));

    manager.fillQueue();
    registry.signal(SIGTERM);
    EXPECT_EQ(registry.expectEnd(), 0);
}

} // namespace
} // namespace kesa::system_test
