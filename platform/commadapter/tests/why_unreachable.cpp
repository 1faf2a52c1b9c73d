// Each step at which an attempt to reach a service can end, against the kernel: the other side is a plain socket that
// says what it is told to, or a backend.

#include <kesa/IKesaApi.h>
#include <kesa/commadapter/createBackend.h>
#include <kesa/commadapter/whyUnreachable.h>

#include <gmock/gmock.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

namespace kesa::commadapter::test {
namespace {

using testing::HasSubstr;
using Cause = Unreachable::Cause;

/// Listens as a process. With `words`, it says them to the first who connects; `hangsUp`: and closes then.
class Socket {
public:
    Socket(const std::string& path, std::optional<std::string> words = {}, bool hangsUp = false)
        : m_listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(m_listening, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(m_listening, 8), 0);
        if (words) {
            m_speaker = std::thread([this, words = *words, hangsUp] {
                m_accepted = ::accept4(m_listening, nullptr, nullptr, SOCK_CLOEXEC);
                static_cast<void>(::send(m_accepted, words.data(), words.size(), MSG_NOSIGNAL));
                if (hangsUp) {
                    ::shutdown(m_accepted, SHUT_RDWR);
                }
            });
        }
    }
    ~Socket()
    {
        if (m_speaker.joinable()) {
            m_speaker.join();
            ::close(m_accepted);
        }
        ::close(m_listening);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

private:
    int m_listening;
    int m_accepted = -1;
    std::thread m_speaker;
};

class Nothing final : public IKesaApi {
public:
    void* request(const Request&, std::unique_ptr<IResponseHandler<Response>>&&) override
    {
        return UNDEFINED_REQUEST_HANDLE;
    }
    void cancel(void*) override {}
};

class WhyUnreachableTest : public testing::Test {
protected:
    WhyUnreachableTest()
    {
        std::string name = std::filesystem::temp_directory_path() / "kesa.XXXXXX";
        m_directory = ::mkdtemp(name.data());
        ::setenv("KESA_RUN_DIR", m_directory.c_str(), 1);
        ::setenv("KESA_CONFIG_DIR", m_directory.c_str(), 1);
    }
    ~WhyUnreachableTest() override
    {
        ::unsetenv("KESA_RUN_DIR");
        ::unsetenv("KESA_CONFIG_DIR");
        std::filesystem::remove_all(m_directory);
    }
    static void expect(const std::string& locator, Cause cause, const std::string& reason, bool isOurs = true)
    {
        const Unreachable found = whyUnreachable(url(locator), comm::SECOND / 10);
        EXPECT_EQ(found.cause, cause) << locator << ": " << found.reason;
        EXPECT_THAT(found.reason, HasSubstr(reason)) << locator;
        EXPECT_EQ(found.pid, isOurs ? ::getpid() : -1) << locator;
    }

    std::string m_directory;
};

TEST_F(WhyUnreachableTest, NamesTheStepAtWhichItEnds)
{
    for (const char* const unknown : {"tcp://media:1/player", "ipc://media+0123456789abcdef/player", "/player"}) {
        expect(unknown, Cause::eNOWHERE, "is of a scheme or of a run directory that is not known here", false);
    }
    expect("ipc://media/a/../b", Cause::eNOWHERE, "what follows the process is no path of a service", false);
    expect("ipc://media/player", Cause::eMISSING, "no process listens as \"media\" in \"" + m_directory, false);

    using namespace std::string_literals;
    const Socket mute(m_directory + "/mute.sock");
    expect("ipc://mute/player", Cause::eSILENT, "says nothing");
    const Socket web(m_directory + "/web.sock", "HTTP/1.1 400 Bad Request\r\n\r\n");
    expect("ipc://web/player", Cause::eGARBAGE, "bytes, more than 65536");
    const Socket shy(m_directory + "/shy.sock", "", true);
    expect("ipc://shy/player", Cause::eGARBAGE, "the peer closed the connection");
    const std::string hello = "\xbf\x10\x07\x11\x09\x14\x50"
                              "0123456789abcdef\xff"s;
    const Socket later(m_directory + "/later.sock", "\x18\0\0\0\x01\0\x18\0\0\0\0\0\0\0\0\0"s + hello);
    expect("ipc://later/player", Cause::eOTHER_VERSION, "the peer 7 to 9");

    Nothing service;
    url locator;
    const auto backend = createBackend("media", "");
    backend->start();
    ASSERT_FALSE(backend->provideOnPath("/player", &service, locator));
    expect(locator.toString(), Cause::eNONE, "");
    expect("ipc://media/plaier", Cause::eNOT_PROVIDED, "does not provide \"/plaier\"");
    backend->stop();
}

TEST_F(WhyUnreachableTest, NobodyIsSentIntoTheGroupOfRootOrOfAPerson)
{
    std::vector<gid_t> groups(static_cast<std::size_t>(::getgroups(0, nullptr)));
    ASSERT_GE(::getgroups(static_cast<int>(groups.size()), groups.data()), 0);
    if (::geteuid() != 0 || ::setgroups(0, nullptr) != 0) {
        GTEST_SKIP() << "only root can give a socket to another group";
    }
    const gid_t own = ::getegid();
    ASSERT_EQ(::setegid(65534), 0);
    const std::string path = m_directory + "/media.sock";
    const Socket media(path);
    const auto expectAdvice = [this, &path](uid_t owner, gid_t group, mode_t mode, const std::string& advice) {
        ASSERT_EQ(::chown(path.c_str(), owner, group), 0);
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        ASSERT_EQ(::seteuid(65534), 0);
        expect("ipc://media/player", Cause::eFORBIDDEN, advice, false);
        ASSERT_EQ(::seteuid(0), 0);
    };
    ASSERT_EQ(::chmod(m_directory.c_str(), 0755), 0);
    const std::string join = "and mode 0660; add this user to the group";
    const std::string set = R"(let a group of both use it: "socket_group" and "socket_mode" of that process)";
    expectAdvice(0, 0, 0660, set);
    expectAdvice(54321, 54321, 0660, set);
    expectAdvice(0, 54321, 0600, set);
    expectAdvice(0, 54321, 0660, join);
    expectAdvice(321, 321, 0660, join); // a service's
    ASSERT_EQ(::chmod(m_directory.c_str(), 0750), 0);
    expectAdvice(0, 0, 0660, "its owner has to let a group of this user use it");
    ASSERT_EQ(::setegid(own), 0);
    ASSERT_EQ(::setgroups(groups.size(), groups.data()), 0);
}

} // namespace
} // namespace kesa::commadapter::test
