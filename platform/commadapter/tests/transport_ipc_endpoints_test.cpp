// Endpoints that the ipc transport connects to, or waits for until they are there.

#include "transport/NameClaim.h"
#include "transport_ipc_support.h"

#include <comm/Reactor.h>
#include <comm/processStart.h>
#include <tracing/CapturingSink.h>

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kesa::commadapter::transport::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(TransportIpc, ConnectsWhateverTheLengthOfPathAndNameAndVouchesForBothSides)
{
    directory = (root / std::string(150, 'd')).string();
    const std::string name = "../" + std::string(61, '\x01');
    Node server(board, directory);
    Node client(board, directory);
    ASSERT_FALSE(server.listen(name)) << server.why;
    ASSERT_FALSE(server.listen(name)) << "claimed already";
    ASSERT_EQ(client.connect(name), std::nullopt) << client.reason;

    Peer* accepted = nullptr;
    ASSERT_TRUE(board.waitUntil([&] { return (accepted = server.acceptedFrom(::getpid())) != nullptr; }));
    for (Peer* peer : {accepted, &client.connected.back()}) {
        EXPECT_TRUE(board.waitUntil([&] { return peer->received == "h"; }));
        const PeerIdentity identity = board.read(peer->identity);
        EXPECT_TRUE(identity.pid == ::getpid() && identity.uid == ::getuid() && identity.gid == ::getgid());
    }
    EXPECT_EQ(fs::status(directory + '/' + socketFileName(name)).permissions(), fs::perms(0660));
    const auto own = server.transport->parse(url(server.transport->ownEndpoint()->toString() + "/a/path"));
    EXPECT_EQ(own, server.transport->ownEndpoint());
    for (const char* malformed : {"ipc://a:1/p", "ipc://%zz/p", "ipc://%2/p", "ipc://a+/p", "ipc:///p", "tcp://a/p"}) {
        EXPECT_FALSE(client.transport->parse(url(malformed)).has_value()) << malformed;
    }
    board.run(*client.loop, [&] {
        const PeerIdentity listener = client.transport->whoListens(name);
        EXPECT_EQ(listener.pid, ::getpid());
        EXPECT_EQ(listener.start, comm::processStartTicks(::getpid()));
        EXPECT_LE(client.transport->whoListens("nobody").pid, 0);
    });
    board.run(*server.loop, [&] { server.transport->close(); });
    std::set<fs::path> left;
    for (const auto& file : fs::directory_iterator(directory)) {
        left.insert(file.path().extension() == ".lock" ? ".lock" : file.path().filename());
    }
    EXPECT_EQ(left, (std::set<fs::path>{".lock", "realm"}));
}

/// So who asks for very many at once has no more open than those that he keeps, and one.
TEST_F(TransportIpc, EachConnectionIsJudgedBeforeTheNextIsOpened)
{
    Node client(board, directory);
    Node server(board, directory);
    ASSERT_FALSE(server.listen("media")) << server.why;
    std::vector<bool> opened;
    board.run(*client.loop, [&] {
        for (int i = 0; i < 2; ++i) {
            client.transport->connect({"ipc", "media", "", ""}, [&](ITransport::Connected answer) {
                fs::remove(directory + "/media.sock");
                board.change([&] { opened.push_back(answer.stream != nullptr); });
            });
        }
    });
    ASSERT_TRUE(board.waitUntil([&] { return opened.size() == 2; }));
    EXPECT_EQ(opened, (std::vector<bool>{true, false}));
}

TEST_F(TransportIpc, AMissingEndpointIsReportedWhenItAppears)
{
    directory = (root / "not" / "there" / "yet").string();
    Node client(board, directory);
    Node server(board, directory);
    EXPECT_EQ(client.connect("media"), ITransport::Failure::eMISSING);
    ASSERT_NE(client.watch("media"), 0U);
    fs::create_directories(fs::path(directory).parent_path());
    ASSERT_FALSE(server.listen("media")) << server.why;
    ASSERT_TRUE(appears(client, 1));
    EXPECT_EQ(client.connect("media"), std::nullopt) << client.reason;

    // Its socket alone is removed: who has its name is found by the lock.
    const Endpoint media{"ipc", "media", {}, {}};
    EXPECT_EQ(client.transport->whoCannotBeFound(media), "");
    fs::remove(directory + "/media.sock");
    EXPECT_THAT(client.transport->whoCannotBeFound(media),
                HasSubstr("process " + std::to_string(::getpid()) + " has that name, but somebody has removed its"));
    // Its directory is removed while it is held open, and made anew.
    const int held = ::open(directory.c_str(), O_PATH | O_CLOEXEC);
    board.run(*server.loop, [&] { server.transport->close(); });
    int before = board.read(client.appeared);
    fs::remove_all(directory);
    EXPECT_EQ(client.connect("media"), ITransport::Failure::eMISSING);
    Node next(board, directory);
    ASSERT_FALSE(next.listen("media")) << next.why;
    do {
        ASSERT_TRUE(appears(client, ++before));
    } while (client.connect("media"));
    EXPECT_TRUE(client.transport->canHandle(*next.transport->ownEndpoint()));
    ::close(held);
}

TEST_F(TransportIpc, AnEndpointThatAppearedBeforeItWasWatchedIsReportedButAStaleFileIsNot)
{
    Node client(board, directory);
    Node server(board, directory);
    fs::create_directory(directory);
    ::close(rawSocket(directory + "/stale.sock", ::bind));
    EXPECT_EQ(client.connect("stale"), ITransport::Failure::eSILENT);
    ASSERT_FALSE(server.listen("media"));
    const comm::Reactor::Id stale = client.watch("stale");
    client.watch("media");
    ASSERT_TRUE(appears(client, 1));
    board.run(*client.loop, [&] { client.transport->unwatchEndpoint(stale); });
    EXPECT_EQ(client.appeared, 1);
}

TEST_F(TransportIpc, WhoListensIsTheOwnerOfTheSocketAndOfTheName)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "two users are needed, which only root can be";
    }
    constexpr uid_t ROOT = 0;
    constexpr uid_t OTHER = 1001;
    constexpr uid_t NOBODY = 65534; // has reserved the name
    const struct {
        uid_t socket, listener;
        std::optional<uid_t> name;
        mode_t mode;
        const char* complaint;
    } cases[] = {
        {ROOT, ROOT, {}, 01777, nullptr},
        {OTHER, ROOT, {}, 01777, nullptr},
        {OTHER, OTHER, {}, 01777, nullptr},
        {ROOT, OTHER, {}, 01777, "media.sock\" is of the user \"root\", and process "},
        {OTHER, OTHER, OTHER, 01777, nullptr},
        {ROOT, ROOT, NOBODY, 01777, nullptr},
        {OTHER, OTHER, NOBODY, 01777,
         "the name \"media\" is of the user \"nobody\", whose lock file is there, and process "},
        {OTHER, OTHER, NOBODY, 0777, nullptr}, // there anybody may replace the file
    };
    Node client(board, directory);
    for (const auto& each : cases) {
        fs::remove_all(directory);
        fs::create_directory(directory);
        ::chmod(directory.c_str(), each.mode);
        if (each.name) {
            std::ofstream(directory + "/media.lock").flush();
            ASSERT_EQ(::chown((directory + "/media.lock").c_str(), *each.name, *each.name), 0);
        }
        Child process([&] {
            const int socket = rawSocket(directory + "/media.sock", ::bind);
            static_cast<void>(::chown((directory + "/media.sock").c_str(), each.socket, each.socket) +
                              ::setuid(each.listener));
            ::listen(socket, 1);
        });
        const auto failure = client.connect("media");
        board.run(*client.loop, [&] { // nor is the name his
            EXPECT_EQ(client.transport->whoListens("media").pid, each.complaint == nullptr ? process.pid : 0);
        });
        if (each.complaint == nullptr) {
            EXPECT_EQ(failure, std::nullopt) << client.reason;
            continue;
        }
        EXPECT_EQ(failure, ITransport::Failure::eOTHER);
        EXPECT_THAT(client.reason, HasSubstr(each.complaint + std::to_string(process.pid) + ", which listens "));
    }
}

// In a child, which has a limit of its own as the root of a user namespace.
TEST_F(TransportIpc, WithoutInotifyNothingIsWatchedAndTheLimitIsNamedOnce)
{
    constexpr int CANNOT_LIMIT = 77;
    const pid_t child = ::fork();
    if (child == 0) {
        if (::unshare(CLONE_NEWUSER) != 0 ||
            !(std::ofstream("/proc/sys/user/max_inotify_instances") << 0 << std::flush)) {
            ::_exit(CANNOT_LIMIT);
        }
        const tracing::TraceCapture traces("KESA_COMM_IPC");
        Node client(board, directory);
        EXPECT_EQ(client.watch("media"), 0U);
        EXPECT_EQ(client.watch("other"), 0U);
        EXPECT_THAT(traces.take(), ElementsAre(HasSubstr("(sysctl fs.inotify.max_user_instances)")));
        ::_exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WEXITSTATUS(status) == CANNOT_LIMIT) {
        GTEST_SKIP() << "this user may make no user namespace";
    }
    EXPECT_EQ(status, 0);
}

TEST_F(TransportIpc, AFullBacklogIsBusyNotMissing)
{
    fs::create_directory(directory);
    const int listening = rawSocket(directory + "/busy.sock", ::bind);
    ASSERT_EQ(::listen(listening, 1), 0);
    Node client(board, directory);
    std::optional<ITransport::Failure> failure;
    for (int i = 0; i < 10 && !failure; ++i) {
        failure = client.connect("busy");
    }
    EXPECT_EQ(failure, ITransport::Failure::eBUSY);
    ::close(listening);
}

} // namespace
} // namespace kesa::commadapter::transport::test
