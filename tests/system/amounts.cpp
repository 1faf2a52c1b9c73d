// Peers of another user that keep every rule, and send more than anybody needs. What they make a process keep is
// bounded in bytes and descriptors, and an honest one is served beside them. How long that takes is for no test to say.

#include "RawPeer.h"
#include "SystemTest.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <deque>
#include <functional>

namespace kesa::system_test {
namespace {

constexpr uid_t STRANGER = 65533; // whom no other test runs as
constexpr std::size_t MiB = 1024; // in KiB

// What one user may make a process keep: bounds of the system, with what the allocator adds.
constexpr std::size_t MOST_UNFINISHED_KIB = 192 * MiB;
constexpr std::size_t MOST_ATTACHED_KIB = 192 * MiB;
constexpr std::size_t MOST_ASKED_KIB = 96 * MiB;
constexpr std::size_t DESCRIPTORS = 256;    // that the process may have
constexpr std::size_t LEFT_FOR_OTHERS = 64; // of these
constexpr std::size_t MOST_LOGGED_BYTES = 1 << 20;

/// A child with the rights of a stranger: it acts, and then keeps its connections until the object goes.
class Intruder {
public:
    using Act = std::function<void(std::deque<RawPeer>& peers, int told)>;
    explicit Intruder(const Act& act)
    {
        std::array<int, 2> told{};
        if (::pipe(told.data()) != 0) {
            throw Missing("a pipe of an intruder");
        }
        const pid_t parent = ::getpid();
        m_pid = ::fork();
        if (m_pid == 0) {
            run(act, told[1], parent);
        }
        ::close(told[1]);
        m_told = told[0];
    }
    ~Intruder()
    {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
        ::close(m_told);
    }
    Intruder(const Intruder&) = delete;
    Intruder& operator=(const Intruder&) = delete;

    /// Returns when it has said something.
    void awaitWord() const
    {
        pollfd ready{m_told, POLLIN, 0};
        char word = 0;
        if (::poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(LIMIT).count())) != 1 ||
            ::read(m_told, &word, 1) != 1) {
            throw Missing("an intruder did not come to its end");
        }
    }

    static void sayWord(int told)
    {
        if (::write(told, "!", 1) != 1) {
            ::_exit(1);
        }
    }

private:
    [[noreturn]] static void run(const Act& act, int told, pid_t parent)
    {
        if (::setuid(STRANGER) != 0 || ::prctl(PR_SET_DUMPABLE, 1) != 0 || // for /proc/self/fd
            ::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) {
            ::_exit(126);
        }
        std::deque<RawPeer> peers;
        try {
            act(peers, told);
        } catch (const Missing&) {
            // It was cut off: what it has left is what counts.
        }
        sayWord(told);
        while (true) {
            ::pause();
        }
    }

    pid_t m_pid = -1;
    int m_told = -1;
};

const Options OPEN{.comm = R"({"socket_mode": "0666"})", .trace = "*=3"};
const Options OPEN_REGISTRY{.comm = R"({"socket_mode": "0666"})", .trace = "*=3", .hasRegistry = true};

struct Victim {
    Process& process;
    const char* path;
};

class SystemAmounts : public SystemTest {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root has a second user to act as";
        }
        if (IS_SANITIZED) {
            GTEST_SKIP() << "the sanitizers need memory and descriptors of their own";
        }
    }

    /// A provider and the registry, each of which anybody may connect to.
    std::array<Victim, 2> startVictims()
    {
        Process& provider = startProvider("media", "/player", OPEN);
        startBystander(PLAYER);
        Process& registry = launchRegistry(OPEN_REGISTRY);
        registry.expect("kesa-registryd: ready at ipc://kesa-registryd/registry");
        m_honest = &start("honest", WITH_REGISTRY);
        expectServed();
        return {Victim{provider, "/player"}, Victim{registry, "/registry"}};
    }
    /// Registry and provider serve those that have been there, and one that comes.
    void expectServed()
    {
        expectUndisturbed();
        const std::string path = "/honest/" + std::to_string(++m_rounds);
        m_honest->send("provide " + path);
        m_honest->expect("provided " + path);
        Process& late = start("late-" + std::to_string(m_rounds), WITH_REGISTRY);
        for (const std::string& service : {path, PLAYER}) {
            late.send("resolve " + service);
            late.expect("connected " + service);
        }
        discard(late);
    }

private:
    Process* m_honest = nullptr;
    int m_rounds = 0;
};

/// Many large messages at once, none of which ever ends.
void sendUnfinished(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim)
{
    constexpr std::uint32_t STREAMS = 64;
    constexpr std::size_t FRAGMENTS = 48; // 3 MiB of each message
    for (int count = 0; count < 2; ++count) {
        RawPeer& peer = peers.emplace_back(runDirectory, victim.process.name());
        peer.send(wire::hello() + wire::attach(1, victim.path));
        peer.readFrame();
        peer.readFrame(); // attached: a request would be refused before
    }
    for (std::size_t fragment = 0; fragment < FRAGMENTS; ++fragment) {
        for (RawPeer& peer : peers) {
            for (std::uint32_t stream = 1; stream <= STREAMS; ++stream) {
                if (peer.send(fragment == 0 ? wire::beginningOfRequest(stream, 1, 16'000'000)
                                            : wire::fragmentOfRequest(stream, 1))) {
                    break; // cut off
                }
            }
        }
    }
}

void attachLongPaths(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim)
{
    RawPeer& peer = peers.emplace_back(runDirectory, victim.process.name());
    bool isCutOff = peer.send(wire::hello());
    for (std::uint32_t number = 1; number <= 65536 && !isCutOff; ++number) {
        const std::string path = '/' + std::to_string(number) + '/';
        isCutOff = peer.send(wire::attach(number, path + std::string(4096 - path.size(), 'p')));
    }
}

TEST_F(SystemAmounts, MessagesWithoutEndAreKeptInBounds)
{
    for (const Victim& victim : startVictims()) {
        SCOPED_TRACE(victim.process.name());
        const std::size_t before = victim.process.residentKiB();
        const Intruder intruder([&](auto& peers, int) { sendUnfinished(peers, runDirectory(), victim); });
        intruder.awaitWord();
        expectServed();
        EXPECT_LT(victim.process.residentKiB(), before + MOST_UNFINISHED_KIB);
    }
}

TEST_F(SystemAmounts, PathsThatAreAttachedAreKeptInBounds)
{
    for (const Victim& victim : startVictims()) {
        SCOPED_TRACE(victim.process.name());
        const std::size_t before = victim.process.residentKiB();
        const Intruder intruder([&](auto& peers, int) { attachLongPaths(peers, runDirectory(), victim); });
        intruder.awaitWord();
        expectServed();
        EXPECT_LT(victim.process.residentKiB(), before + MOST_ATTACHED_KIB);
    }
}

TEST_F(SystemAmounts, ConnectionsOfOneUserLeaveDescriptorsForOthers)
{
    for (const Victim& victim : startVictims()) {
        SCOPED_TRACE(victim.process.name());
        victim.process.limitDescriptors(DESCRIPTORS - victim.process.openDescriptors());
        const Intruder intruder([&](auto& peers, int) {
            for (std::size_t count = 0; count < 2 * DESCRIPTORS; ++count) {
                peers.emplace_back(runDirectory(), victim.process.name()).send(wire::hello());
            }
        });
        intruder.awaitWord();
        expectServed();
        EXPECT_LE(victim.process.openDescriptors(), DESCRIPTORS - LEFT_FOR_OTHERS);
    }
}

/// A provider's echo; a path at the registry that is another's.
std::string requestThatEnds(const Victim& victim, std::uint32_t stream)
{
    return victim.path == std::string("/registry") ? wire::registration(stream, 1, "/honest/1")
                                                   : wire::request(stream, 1, "/echo");
}

void takeEnds(RawPeer& peer, std::uint32_t count)
{
    while (count > 0) {
        const wire::Kind kind = wire::kindOf(peer.readFrame());
        count -= kind == wire::eERROR || kind == wire::eCOMPLETED ? 1 : 0;
    }
}

/// Asks on many connections, and takes every answer; for ever. Says a word once all have begun.
void askForEver(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim, int told)
{
    constexpr std::size_t CONNECTIONS = 100;
    constexpr std::uint32_t REQUESTS = 100; // in one batch
    std::string batch;
    for (std::uint32_t stream = 1; stream <= REQUESTS; ++stream) {
        batch += requestThatEnds(victim, stream);
    }
    for (std::size_t count = 0; count < CONNECTIONS; ++count) {
        RawPeer& peer = peers.emplace_back(runDirectory, victim.process.name());
        peer.send(wire::hello() + wire::attach(1, victim.path));
        peer.readFrame();
        peer.readFrame();
    }
    for (int round = 0;; ++round) {
        for (RawPeer& peer : peers) {
            peer.send(batch);
        }
        if (round == 1) {
            Intruder::sayWord(told);
        }
        for (RawPeer& peer : peers) {
            takeEnds(peer, REQUESTS);
        }
    }
}

TEST_F(SystemAmounts, WhoAsksWithoutPauseLeavesTurnsAndTheLogToOthers)
{
    for (const Victim& victim : startVictims()) {
        SCOPED_TRACE(victim.process.name());
        const std::size_t before = victim.process.residentKiB();
        const std::size_t logged = victim.process.traces().size();
        const Intruder intruder([&](auto& peers, int told) { askForEver(peers, runDirectory(), victim, told); });
        intruder.awaitWord();
        expectServed();
        EXPECT_LT(victim.process.residentKiB(), before + MOST_ASKED_KIB);
        EXPECT_LT(victim.process.traces().size() - logged, MOST_LOGGED_BYTES);
    }
}

} // namespace
} // namespace kesa::system_test
