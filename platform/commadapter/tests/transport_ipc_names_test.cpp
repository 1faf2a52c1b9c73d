// Names of processes at the ipc transport: who holds one, and what becomes of the lock file.

#include "transport_ipc_support.h"

#include <obr/Random.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

namespace kesa::commadapter::transport::test {
namespace {

using testing::AllOf;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::MatchesRegex;
using testing::Not;

TEST_F(TransportIpc, ANameIsHeldByOneLivingProcessOnly)
{
    Node first(board, directory);
    Node second(board, directory);
    ASSERT_FALSE(first.listen("media"));
    EXPECT_TRUE(second.listen("media"));
    EXPECT_THAT(second.why, HasSubstr("is held by process " + std::to_string(::getpid()) + ", which is this one; end"));
    EXPECT_TRUE(first.listen("other")) << "a transport has one name";

    // A child made meanwhile does not keep the name.
    const Child bystander([] {});
    board.run(*first.loop, [&] { first.transport->close(); });
    EXPECT_FALSE(second.listen("media")) << second.why;

    Child holder([this] {
        const int lock = ::open((directory + "/nav.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ::flock(lock, LOCK_EX | LOCK_NB);
        const std::string pid = std::to_string(::getpid());
        static_cast<void>(::write(lock, pid.data(), pid.size()) > 0);
        rawSocket(directory + "/nav.sock", ::bind);
    });
    Node third(board, directory);
    EXPECT_TRUE(third.listen("nav"));
    EXPECT_THAT(third.why, MatchesRegex("the name \"nav\" is held by process " + std::to_string(holder.pid) + " \\(" +
                                        fs::read_symlink("/proc/self/exe").string() +
                                        "\\) since 20[0-9-]{8} [0-9:]{8}; end that one and start this one again, or "
                                        "give one of both another name; \"kesactl ps\" shows which are taken"));
    ::kill(holder.pid, SIGKILL);
    EXPECT_FALSE(third.listen("nav")) << "which waits for the kernel: " << third.why;
    holder.end();
    EXPECT_EQ(second.connect("nav"), std::nullopt) << second.reason;
}

TEST_F(TransportIpc, ALockFileThatIsNoneIsLeftAsItIs)
{
    fs::create_directory(directory);
    std::ofstream(root / "precious") << "content";
    const std::string lock = directory + "/media.lock";
    Node node(board, directory);
    const auto refuses = [&](const std::string& what) {
        EXPECT_TRUE(node.listen("media"));
        EXPECT_EQ(node.why, lock + ' ' + what + "; remove " + lock + ", which nobody holds");
        fs::remove(lock);
    };
    fs::create_symlink(root / "precious", lock);
    refuses("is a symbolic link");
    fs::create_hard_link(root / "precious", lock);
    refuses("has another name, as a hard link");
    fs::create_directory(lock);
    refuses("is a directory");
    ASSERT_EQ(::mkfifo(lock.c_str(), 0600), 0);
    refuses("is no regular file");
    std::string content;
    std::getline(std::ifstream(root / "precious"), content);
    EXPECT_EQ(content, "content");
    EXPECT_FALSE(node.listen("media")) << node.why;
}

TEST_F(TransportIpc, ANameIsOfNoUserButWhereEachUsersFilesAreHisOwn)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can be two users";
    }
    constexpr uid_t USER = 321; // of a service
    constexpr uid_t PERSON = 54321;
    const std::string lock = directory + "/media.lock";
    fs::create_directory(directory);
    ASSERT_EQ(::chmod(root.c_str(), 0755), 0);
    const auto rightsAfterClaim = [&](mode_t rights, uid_t claimant, uid_t owner) {
        fs::remove(lock);
        fs::remove(directory + "/realm");
        EXPECT_EQ(::chown(directory.c_str(), owner, owner), 0);
        EXPECT_EQ(::chmod(directory.c_str(), rights), 0);
        Node node(board, directory);
        EXPECT_EQ(::seteuid(claimant), 0);
        EXPECT_FALSE(node.listen("media")) << node.why;
        EXPECT_EQ(::seteuid(0), 0);
        struct stat status {};
        EXPECT_EQ(::stat(lock.c_str(), &status), 0);
        return std::tuple(status.st_uid, status.st_gid, status.st_mode & 07777U);
    };
    EXPECT_EQ(rightsAfterClaim(03775, 0, USER), std::tuple(USER, USER, 0600U)) << "a name is of who had it first";
    EXPECT_EQ(rightsAfterClaim(03775, USER, USER), std::tuple(USER, USER, 0600U));
    EXPECT_EQ(rightsAfterClaim(02775, PERSON, PERSON), std::tuple(PERSON, PERSON, 0660U)) << "a group of one";
    EXPECT_EQ(rightsAfterClaim(0755, 0, USER), std::tuple(USER, USER, 0600U)) << "its group may not replace it either";

    ASSERT_EQ(::chown(lock.c_str(), 0, 0), 0);
    Node node(board, directory);
    ASSERT_EQ(::seteuid(USER), 0);
    EXPECT_TRUE(node.listen("media"));
    EXPECT_EQ(node.why, "cannot open " + lock + ": Permission denied, it is root's, mode 0600; remove " + lock +
                            ", which nobody holds");
    fs::remove(lock);
    EXPECT_FALSE(node.listen("media")) << node.why;
    ASSERT_EQ(::seteuid(0), 0);
}

TEST_F(TransportIpc, WhereEachUsersFilesAreHisOwnANameIsKeptBetweenTwoProcessesOfIt)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can be two users";
    }
    constexpr uid_t USER = 54321;
    fs::create_directory(directory);
    ASSERT_EQ(::chmod(root.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(directory.c_str(), 01777), 0);
    std::ofstream(directory + "/media.sock").flush(); // as it is made at boot, for him
    ASSERT_EQ(::chown((directory + "/media.sock").c_str(), USER, USER), 0);
    Node client(board, directory);
    for (const uid_t starter : {USER, uid_t{0}, USER}) {
        EXPECT_EQ(client.connect("media"), ITransport::Failure::eMISSING) << client.reason;
        ASSERT_EQ(::seteuid(starter), 0);
        {
            Node provider(board, directory);
            EXPECT_FALSE(provider.listen("media")) << provider.why;
            EXPECT_EQ(client.connect("media"), std::nullopt) << client.reason;
        }
        ASSERT_EQ(::seteuid(0) + ::seteuid(USER + 1), 0);
        std::error_code error;
        fs::remove(directory + "/media.sock", error);
        EXPECT_EQ(error, std::errc::operation_not_permitted);
        Node other(board, directory);
        EXPECT_TRUE(other.listen("media"));
        EXPECT_THAT(other.why, HasSubstr("have \"54321\" or root remove " + directory + "/media.lock and " + directory +
                                         "/media.sock"));
        ASSERT_EQ(::seteuid(0), 0);
    }
}

/// Counts up.
class Foreseeable final : public obr::Random {
public:
    Foreseeable() { obr::Random::install(this); }
    ~Foreseeable() override { obr::Random::install(nullptr); }
    std::uint64_t next() override { return ++m_last; }

private:
    std::atomic<std::uint64_t> m_last{0};
};

TEST_F(TransportIpc, WhereOthersMayWriteNoFileOfTheirsKeepsANameFromItsUser)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can be two users";
    }
    fs::create_directory(directory);
    ASSERT_EQ(::chmod(root.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(directory.c_str(), 01777), 0);
    ASSERT_EQ(::seteuid(54322), 0);
    const std::string beginning = directory + "/.media." + std::to_string(::getpid()) + '.';
    for (int number = 0; number < 200; ++number) { // such as that of a descriptor
        std::ofstream(beginning + std::to_string(number) + ".tmp").flush();
    }
    for (const char digit : {'1', '2', '3'}) {
        std::ofstream(beginning + std::string(15, '0') + digit + ".tmp").flush();
    }
    ASSERT_EQ(::seteuid(0) + ::seteuid(54321), 0);
    const Foreseeable random;
    Node provider(board, directory);
    EXPECT_FALSE(provider.listen("media")) << provider.why;
    ASSERT_EQ(::seteuid(0), 0);
}

TEST_F(TransportIpc, WithoutDescriptorsTheLimitIsNamedAndTheNextClaimGoesOn)
{
    Node node(board, directory);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const int lowestFree = ::dup(STDIN_FILENO);
    ASSERT_EQ(::close(lowestFree), 0);
    std::size_t refusals = 0;
    for (rlimit limit = before; refusals < 20; ++refusals) {
        limit.rlim_cur = static_cast<rlim_t>(lowestFree) + refusals;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        const bool isRefused = node.listen("media");
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
        if (!isRefused) {
            break;
        }
        EXPECT_THAT(node.why, HasSubstr("Too many open files; this process has used up its descriptors: let it have "
                                        "more than " +
                                        std::to_string(limit.rlim_cur) + " (ulimit -n"));
        EXPECT_THAT(node.why, Not(HasSubstr("run_dir")));
    }
    EXPECT_THAT(refusals, AllOf(Ge(3U), Le(6U))) << "directory, realm or lock, socket, a look at it";
}

} // namespace
} // namespace kesa::commadapter::transport::test
