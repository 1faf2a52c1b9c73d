// The ipc transport against the kernel: each test has a run directory of its own and leaves neither files nor
// descriptors behind. Other processes are forked children that make plain system calls only.

#include "transport/IpcTransport.h"
#include "transport/NameClaim.h"
#include "transport/PeerProcess.h"
#include "transport/chooseRunDirectory.h"

#include <comm/Condition.h>
#include <comm/Reactor.h>
#include <comm/Scheduler.h>
#include <kesa/commadapter/whyUnreachable.h>
#include <kesa/processName.h>
#include <tracing/CapturingSink.h>

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <mutex>
#include <set>

namespace kesa::commadapter::transport::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::MatchesRegex;
using testing::Not;

namespace fs = std::filesystem;

/// What loops change and the test waits for.
class Board {
public:
    void change(const std::function<void()>& what)
    {
        const std::lock_guard lock(m_mutex);
        what();
        m_changed.notifyAll();
    }
    bool waitUntil(const std::function<bool()>& holds)
    {
        std::unique_lock lock(m_mutex);
        return comm::waitFor(m_changed, lock, holds, comm::now() + 30 * comm::SECOND);
    }
    template <class T>
    T read(const T& value)
    {
        const std::lock_guard lock(m_mutex);
        return value;
    }
    /// Runs `work` on the loop and waits for it.
    void run(comm::Reactor& loop, std::function<void()> work)
    {
        bool isDone = false;
        loop.post([this, &work, &isDone] {
            work();
            change([&isDone] { isDone = true; });
        });
        waitUntil([&isDone] { return isDone; });
    }

private:
    std::mutex m_mutex;
    comm::Condition m_changed;
};

/// One end of a stream: says hello, keeps what arrives, closes at the end. `readsOnce`: does not read on by itself.
class Peer final : public IStreamListener {
public:
    explicit Peer(Board& board, bool readsOnce = false) : m_board(board), m_readsOnce(readsOnce) {}

    /// On the loop.
    void start(std::unique_ptr<IStream> stream)
    {
        m_stream = std::move(stream);
        m_stream->start(*this);
        std::string hello = "h"; // a peer is known once its first bytes have been read
        const iovec part{hello.data(), hello.size()};
        std::size_t size = 0;
        m_stream->write({&part, 1}, size);
    }
    /// On the loop, as the next one.
    void close() { m_stream ? m_stream->close() : void(); }
    void readOn()
    {
        m_readsOnce = false;
        m_stream->setReading(true);
    }

    void onReadable() override
    {
        std::array<unsigned char, 512> buffer;
        std::size_t size = 0;
        const IStream::Result result = m_stream->read(buffer, size);
        m_stream->setReading(!m_readsOnce);
        m_board.change([&] {
            received.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(size));
            identity = m_stream->peer();
            isEnded = isEnded || result == IStream::Result::eENDED;
        });
        result == IStream::Result::eENDED ? close() : void();
    }
    void onWritable() override
    {
        m_board.change([this] { ++writable; });
    }
    void onPeerExited() override
    {
        m_board.change([this] {
            hasPeerExited = true;
            receivedAtExit = received;
        });
    }

    // Under the board's lock.
    std::string received;
    bool isEnded = false;
    int writable = 0;
    bool hasPeerExited = false;
    std::string receivedAtExit;
    PeerIdentity identity;

private:
    Board& m_board;
    bool m_readsOnce;
    std::unique_ptr<IStream> m_stream;
};

std::size_t openDescriptors()
{
    return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

/// A plain socket that is bound to, or connected to, a path.
int rawSocket(const fs::path& path, int (*use)(int, const sockaddr*, socklen_t))
{
    const int directory = ::open(path.parent_path().c_str(), O_PATH | O_CLOEXEC);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = "/proc/self/fd/" + std::to_string(directory) + '/' + path.filename().string();
    name.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    const int result = use(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::close(directory);
    return result == 0 ? socket : -1;
}

/// A child process that runs `body` and then lives until it is ended.
class Child {
public:
    explicit Child(const std::function<void()>& body)
    {
        std::array<int, 2> ready{};
        EXPECT_EQ(::pipe2(ready.data(), O_CLOEXEC), 0);
        pid = ::fork();
        if (pid == 0) {
            body();
            static_cast<void>(::write(ready[1], "x", 1) == 1);
            for (;;) {
                ::pause();
            }
        }
        char byte = 0;
        ::close(ready[1]);
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        ::close(ready[0]);
    }
    ~Child() { end(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    void end()
    {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
            pid = 0;
        }
    }
    pid_t pid = 0;
};

/// One "process": a loop, its transport, and what was accepted.
struct Node {
    Node(Board& testBoard, const std::string& directory)
        : board(testBoard), loop(comm::Scheduler::current().makeReactor("kesa-io"))
    {
        IpcSettings settings;
        settings.runDir = directory;
        transport = makeIpcTransport(settings, loop);
    }
    ~Node()
    {
        board.run(*loop, [this] {
            for (std::list<Peer>* peers : {&accepted, &connected}) {
                for (Peer& peer : *peers) {
                    peer.close();
                }
            }
            transport->close();
        });
        loop->stop();
    }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    bool listen(const std::string& process)
    {
        return transport->listen(
            process,
            [this](std::unique_ptr<IStream> stream) {
                Peer* peer = nullptr;
                board.change([&] { peer = &accepted.emplace_back(board, readsOnce); });
                peer->start(std::move(stream));
            },
            why);
    }
    /// The failure, or nothing when it is connected.
    std::optional<ITransport::Failure> connect(const std::string& process)
    {
        std::optional<ITransport::Connected> result;
        loop->post([&] {
            transport->connect({"ipc", process, "", ""}, [&](ITransport::Connected answer) {
                if (answer.stream) {
                    connected.emplace_back(board).start(std::move(answer.stream));
                }
                board.change([&] { result = std::move(answer); });
            });
        });
        board.waitUntil([&] { return result.has_value(); });
        reason = result->reason;
        return connected.empty() || !reason.empty() ? std::optional(result->failure) : std::nullopt;
    }
    comm::Reactor::Id watch(const std::string& process)
    {
        comm::Reactor::Id id = 0;
        board.run(*loop, [&] {
            id = transport->watchEndpoint({"ipc", process, "", ""}, [this] { board.change([this] { ++appeared; }); });
        });
        return id;
    }

    Board& board;
    const std::shared_ptr<comm::Reactor> loop;
    std::unique_ptr<ITransport> transport;
    bool readsOnce = false; ///< who is accepted
    std::list<Peer> accepted;
    std::list<Peer> connected;
    std::string why;
    std::string reason;
    int appeared = 0;
};

class TransportIpc : public testing::Test {
protected:
    TransportIpc()
    {
        std::string name = (fs::temp_directory_path() / "kesa-ipc-XXXXXX").string();
        root = ::mkdtemp(name.data());
        directory = (root / "run").string();
    }
    ~TransportIpc() override
    {
        fs::remove_all(root);
        EXPECT_EQ(openDescriptors(), descriptors);
    }
    bool appears(const Node& node, int times)
    {
        return board.waitUntil([&] { return node.appeared >= times; });
    }

    const std::size_t descriptors = openDescriptors();
    fs::path root;
    std::string directory;
    Board board;
};

TEST_F(TransportIpc, ConnectsWhateverTheLengthOfPathAndNameAndVouchesForBothSides)
{
    directory = (root / std::string(150, 'd')).string();
    const std::string name = "../" + std::string(61, '\x01');
    Node server(board, directory);
    Node client(board, directory);
    ASSERT_FALSE(server.listen(name)) << server.why;
    ASSERT_FALSE(server.listen(name)) << "claimed already";
    ASSERT_EQ(client.connect(name), std::nullopt) << client.reason;

    ASSERT_TRUE(board.waitUntil([&] { return !server.accepted.empty(); }));
    for (Peer* peer : {&server.accepted.back(), &client.connected.back()}) {
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
    board.run(*server.loop, [&] { server.transport->close(); });
    std::set<fs::path> left;
    for (const auto& file : fs::directory_iterator(directory)) {
        left.insert(file.path().extension() == ".lock" ? ".lock" : file.path().filename());
    }
    EXPECT_EQ(left, (std::set<fs::path>{".lock", "realm"}));
}

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

TEST_F(TransportIpc, ANameIsOfNoUser)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can be two users";
    }
    constexpr uid_t USER = 54321;
    const std::string lock = directory + "/media.lock";
    fs::create_directory(directory);
    ASSERT_EQ(::chmod(root.c_str(), 0755), 0);
    const auto rightsAfterClaim = [&](mode_t rights, uid_t claimant) {
        fs::remove(lock);
        EXPECT_EQ(::chown(directory.c_str(), USER, USER), 0);
        EXPECT_EQ(::chmod(directory.c_str(), rights), 0);
        Node node(board, directory);
        EXPECT_EQ(::seteuid(claimant), 0);
        EXPECT_FALSE(node.listen("media")) << node.why;
        EXPECT_EQ(::seteuid(0), 0);
        struct stat status {};
        EXPECT_EQ(::stat(lock.c_str(), &status), 0);
        return std::tuple(status.st_uid, status.st_gid, status.st_mode & 07777U);
    };
    EXPECT_EQ(rightsAfterClaim(02775, 0), std::tuple(USER, USER, 0660U));
    EXPECT_EQ(rightsAfterClaim(02775, USER), std::tuple(USER, USER, 0660U));
    EXPECT_EQ(rightsAfterClaim(0755, 0), std::tuple(USER, USER, 0600U)) << "its group may not replace it either";

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

    // Its directory is removed while it is held open, and made anew.
    int before = board.read(client.appeared);
    fs::remove_all(directory);
    EXPECT_EQ(client.connect("media"), ITransport::Failure::eMISSING);
    Node next(board, directory);
    ASSERT_FALSE(next.listen("media")) << next.why;
    do {
        ASSERT_TRUE(appears(client, ++before));
    } while (client.connect("media"));
    EXPECT_TRUE(client.transport->canHandle(*next.transport->ownEndpoint()));
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

TEST_F(TransportIpc, TheRunDirectoryIsTheMachinesWhereThisUserMayUseIt)
{
    const std::string system = (root / "system").string();
    ::setenv("XDG_RUNTIME_DIR", "/run/user/7", 1);
    EXPECT_EQ(chooseSharedRunDirectory(system).path, system) << "it may be made";
    fs::create_directory(system);
    EXPECT_EQ(chooseSharedRunDirectory(system).path, system);
    EXPECT_EQ(chooseSharedRunDirectory(system + "/none/kesa").path, "/run/user/7/kesa");
    fs::permissions(system, fs::perms::owner_read | fs::perms::owner_exec);
    const bool isRoot = ::geteuid() == 0 && ::seteuid(65534) == 0;
    EXPECT_EQ(chooseSharedRunDirectory(system).path, "/run/user/7/kesa");
    ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
    ::unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(chooseSharedRunDirectory(system + "/none/kesa").path, system + "/none/kesa");

    const std::string chosen = chooseRunDirectory("").path;
    ::setenv("XDG_RUNTIME_DIR", "/run/user/8", 1);
    EXPECT_EQ(chooseRunDirectory("").path, chosen) << "a process stays where it is";
    ::unsetenv("XDG_RUNTIME_DIR");
    ::setenv("KESA_RUN_DIR", "/own", 1);
    EXPECT_EQ(chooseRunDirectory("").path, "/own");
    EXPECT_EQ(chooseRunDirectory("/configured").path, "/configured");
    ::unsetenv("KESA_RUN_DIR");
}

TEST_F(TransportIpc, AnUnusableRunDirectoryOrSettingIsExplainedOnce)
{
    const tracing::TraceCapture traces("KESA_COMM_IPC");
    std::ofstream(root / "file") << "no directory";
    Node node(board, (root / "file" / "run").string());
    EXPECT_TRUE(node.listen("media"));
    EXPECT_TRUE(node.listen("media"));
    EXPECT_THAT(node.why, EndsWith("file\" is a file; name another one with \"run_dir\" or KESA_RUN_DIR"));
    EXPECT_EQ(traces.take().size(), 1U);

    IpcSettings settings;
    settings.runDir = directory;
    settings.socketGroup = "no such group";
    EXPECT_TRUE(makeIpcTransport(settings, node.loop)->listen("media", {}, node.why));
    EXPECT_EQ(node.why, "there is no group \"no such group\"; see \"socket_group\"");
    Node other(board, directory);
    EXPECT_FALSE(other.listen("media")) << other.why;
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

TEST_F(TransportIpc, WhoDoesNotReadIsToldToWriteAtTheEnd)
{
    Node server(board, directory);
    server.readsOnce = true;
    ASSERT_FALSE(server.listen("media"));
    const int stream = rawSocket(directory + "/media.sock", ::connect);
    const std::string words(600, 'w');
    ASSERT_EQ(::write(stream, words.data(), words.size()), 600);
    ASSERT_TRUE(
        board.waitUntil([&] { return !server.accepted.empty() && server.accepted.back().received.size() == 512; }));
    Peer& accepted = server.accepted.back();
    board.run(*server.loop, [] {}); // a turn in which it could have read
    EXPECT_EQ(board.read(accepted.writable), 0);
    ::close(stream);
    ASSERT_TRUE(board.waitUntil([&] { return accepted.writable > 0; }));
    EXPECT_EQ(board.read(accepted.received).size(), 512U);
    board.run(*server.loop, [&] { accepted.readOn(); });
    ASSERT_TRUE(board.waitUntil([&] { return accepted.isEnded; }));
    EXPECT_EQ(board.read(accepted.received), words);
}

class TransportIpcEnd : public TransportIpc, public testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(WhoReadsOnce, TransportIpcEnd, testing::Bool());

TEST_P(TransportIpcEnd, OfAProcessIsSeenAlthoughItsChildHoldsTheStream)
{
    Node server(board, directory);
    server.readsOnce = GetParam();
    ASSERT_FALSE(server.listen("media"));
    std::array<int, 2> leash{}; // the grandchild ends when the test closes it
    ASSERT_EQ(::pipe2(leash.data(), O_CLOEXEC), 0);
    Child process([&] {
        ::close(leash[1]);
        const int stream = rawSocket(directory + "/media.sock", ::connect);
        if (::fork() == 0) {
            char byte = 0;
            ::_exit(static_cast<int>(::read(leash[0], &byte, 1)));
        }
        const std::string words = std::string(3000, 'w');
        static_cast<void>(::write(stream, words.data(), words.size()) > 0);
    });
    const pid_t pid = process.pid;
    process.end();
    ASSERT_TRUE(board.waitUntil([&] { return !server.accepted.empty() && server.accepted.back().hasPeerExited; }));
    Peer& accepted = server.accepted.back();
    EXPECT_EQ(board.read(accepted.receivedAtExit).size(), GetParam() ? 512U : 3000U);
    EXPECT_EQ(board.read(accepted.identity).pid, pid);
    EXPECT_FALSE(board.read(accepted.isEnded));
    board.run(*server.loop, [&] { accepted.readOn(); });
    ASSERT_TRUE(board.waitUntil([&] { return accepted.received == std::string(3000, 'w'); }));
    ::close(leash[0]);
    ::close(leash[1]);
    EXPECT_TRUE(board.waitUntil([&] { return accepted.isEnded; }));
}

TEST_F(TransportIpc, WithoutThePeersPidfdTheNumberIsTakenAndTheSocketLookedAt)
{
    std::array<int, 2> pair{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
    Child process([] {});
    EXPECT_TRUE(openPeerProcessByPid(pair[0], process.pid).pidfd);
    const pid_t pid = process.pid;
    process.end();
    EXPECT_TRUE(openPeerProcessByPid(pair[0], pid).hasEnded);
    ::close(pair[1]);
    const PeerProcess reused = openPeerProcessByPid(pair[0], ::getpid());
    EXPECT_FALSE(reused.pidfd || reused.hasEnded) << "the peer is gone, its number may be anybody's";
    ::close(pair[0]);
}

// The other causes are told by `kesactl why` and `kesactl ps`, whose sessions have them.
TEST_F(TransportIpc, NobodyIsSentIntoTheGroupOfRootOrOfAPerson)
{
    std::vector<gid_t> groups(static_cast<std::size_t>(::getgroups(0, nullptr)));
    ASSERT_GE(::getgroups(static_cast<int>(groups.size()), groups.data()), 0);
    if (::geteuid() != 0 || ::setgroups(0, nullptr) != 0) {
        GTEST_SKIP() << "only root can give a socket to another group";
    }
    const gid_t own = ::getegid();
    ASSERT_EQ(::setegid(65534), 0);
    ::setenv("KESA_RUN_DIR", root.c_str(), 1);
    ::setenv("KESA_CONFIG_DIR", root.c_str(), 1);
    const std::string path = (root / "media.sock").string();
    const int media = rawSocket(path, ::bind);
    const auto expectAdvice = [&path](uid_t owner, gid_t group, mode_t mode, const std::string& advice) {
        ASSERT_EQ(::chown(path.c_str(), owner, group), 0);
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        ASSERT_EQ(::seteuid(65534), 0);
        const Unreachable found = whyUnreachable(url("ipc://media/player"), comm::SECOND / 10);
        ASSERT_EQ(::seteuid(0), 0);
        EXPECT_EQ(found.cause, Unreachable::Cause::eFORBIDDEN);
        EXPECT_THAT(found.reason, HasSubstr(advice));
    };
    ASSERT_EQ(::chmod(root.c_str(), 0755), 0);
    const std::string join = "and mode 0660; add this user to the group";
    const std::string set = R"(let a group of both use it: "socket_group" and "socket_mode" of that process)";
    expectAdvice(0, 0, 0660, set);
    expectAdvice(54321, 54321, 0660, set);
    expectAdvice(0, 54321, 0600, set);
    expectAdvice(0, 54321, 0660, join);
    expectAdvice(321, 321, 0660, join); // a service's
    ASSERT_EQ(::chmod(root.c_str(), 0750), 0);
    expectAdvice(0, 0, 0660, "its owner has to let a group of this user use it");
    ::close(media);
    ::unsetenv("KESA_RUN_DIR");
    ::unsetenv("KESA_CONFIG_DIR");
    ASSERT_EQ(::setegid(own), 0);
    ASSERT_EQ(::setgroups(groups.size(), groups.data()), 0);
}

} // namespace
} // namespace kesa::commadapter::transport::test
