#include "intruders.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>

namespace kesa::system_test {

Intruder::Intruder(const Act& act)
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

Intruder::~Intruder()
{
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
    ::close(m_told);
}

void Intruder::awaitWord() const
{
    pollfd ready{m_told, POLLIN, 0};
    char word = 0;
    if (::poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(LIMIT).count())) != 1 ||
        ::read(m_told, &word, 1) != 1) {
        throw Missing("an intruder did not come to its end");
    }
}

void Intruder::sayWord(int told)
{
    if (::write(told, "!", 1) != 1) {
        ::_exit(1);
    }
}

void Intruder::run(const Act& act, int told, pid_t parent)
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

void connectOften(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim, std::size_t times)
{
    for (std::size_t count = 0; count < times; ++count) {
        peers.emplace_back(runDirectory, victim.process.name()).send(wire::hello());
    }
}

namespace {

/// A provider's echo; a path at the registry that is another's.
std::string requestThatEnds(const Victim& victim, std::uint32_t stream)
{
    return victim.path == std::string("/registry") ? wire::registration(stream, 1, victim.path)
                                                   : wire::request(stream, 1, "/echo");
}

/// A provider's that is never answered; at the registry, where those are counted apart, one that ends.
std::string requestThatStays(const Victim& victim, std::uint32_t stream)
{
    return victim.path == std::string("/registry") ? requestThatEnds(victim, stream)
                                                   : wire::request(stream, 1, "/hang");
}

void takeEnds(RawPeer& peer, std::uint32_t count)
{
    while (count > 0) {
        const wire::Kind kind = wire::kindOf(peer.readFrame());
        count -= kind == wire::eERROR || kind == wire::eCOMPLETED ? 1 : 0;
    }
}

} // namespace

void useAllNumbers(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim)
{
    for (int count = 0; count < 60; ++count) {
        RawPeer& peer = peers.emplace_back(runDirectory, victim.process.name());
        peer.send(wire::hello() + wire::attach(1, victim.path));
        peer.readFrame();
        peer.readFrame();
        std::string all;
        for (std::uint32_t stream = 64; stream <= 65536; stream += 64) {
            all += requestThatStays(victim, stream);
        }
        peer.send(all + wire::frame(wire::ePING, 0, 0));
        while (wire::kindOf(peer.readFrame()) != wire::ePONG) {
        }
    }
}

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

void askAndReadNothing(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim)
{
    for (int count = 0; count < 100; ++count) {
        RawPeer& peer = peers.emplace_back(runDirectory, victim.process.name());
        peer.send(wire::hello() + wire::attach(1, victim.path));
        peer.readFrame();
        peer.readFrame();
        std::size_t used = 0;
        for (std::uint32_t stream = 1; used < wire::REQUEST_WINDOW; ++stream) {
            const std::string request = requestThatEnds(victim, stream);
            used += wire::costOf(request);
            peer.send(request);
        }
    }
}

void askBeyondTheWindow(std::deque<RawPeer>& peers, const std::string& runDirectory, const Victim& victim)
{
    RawPeer& peer = peers.emplace_back(runDirectory, victim.process.name());
    peer.send(wire::hello() + wire::attach(1, victim.path));
    peer.readFrame();
    peer.readFrame();
    std::string all;
    for (std::uint32_t stream = 1; stream <= 65536; ++stream) {
        all += requestThatEnds(victim, stream);
    }
    while (!peer.send(all)) { // those before have ended
    }
}

} // namespace kesa::system_test
