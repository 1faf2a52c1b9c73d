#ifndef KESA_COMMADAPTER_TESTS_TRANSPORT_IPC_SUPPORT_H
#define KESA_COMMADAPTER_TESTS_TRANSPORT_IPC_SUPPORT_H

#include "transport/IpcTransport.h"

#include <TemporaryFolder.h>
#include <comm/Condition.h>
#include <comm/Reactor.h>
#include <comm/Scheduler.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

/// What the tests of the ipc transport share. It is tested against the kernel: each test has a run directory of its own
/// and leaves neither files nor descriptors behind. Other processes are forked children that make plain system calls
/// only.
namespace kesa::commadapter::transport::test {

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
        m_board.change([this] { identity = m_stream->peer(); }); // the process, not when it began: before any byte
        std::string hello = "h";
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

inline std::size_t openDescriptors()
{
    return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

/// A plain socket that is bound to, or connected to, a path.
inline int rawSocket(const fs::path& path, int (*use)(int, const sockaddr*, socklen_t))
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
    /// Null until it is accepted. Tools that look for processes in other run directories may connect, too. Under the
    /// board's lock.
    Peer* acceptedFrom(pid_t pid)
    {
        const auto found = std::find_if(accepted.begin(), accepted.end(),
                                        [pid](const Peer& peer) { return peer.identity.pid == pid; });
        return found != accepted.end() ? &*found : nullptr;
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
    ~TransportIpc() override { EXPECT_EQ(openDescriptors(), descriptors); }
    bool appears(const Node& node, int times)
    {
        return board.waitUntil([&] { return node.appeared >= times; });
    }

    const std::size_t descriptors = openDescriptors();
    const kesa::test::TemporaryFolder folder;
    const fs::path root = folder.path();
    std::string directory = folder / "run";
    Board board;
};

} // namespace kesa::commadapter::transport::test

#endif
