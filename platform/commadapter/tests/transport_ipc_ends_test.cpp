// How the end of a stream is seen, and that of the process at its other end.

#include "transport/PeerProcess.h"
#include "transport_ipc_support.h"

#include <comm/processStart.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>

namespace kesa::commadapter::transport::test {
namespace {

TEST_F(TransportIpc, WhoDoesNotReadIsToldToWriteAtTheEnd)
{
    Node server(board, directory);
    server.readsOnce = true;
    ASSERT_FALSE(server.listen("media"));
    const int stream = rawSocket(directory + "/media.sock", ::connect);
    const std::string words(600, 'w');
    ASSERT_EQ(::write(stream, words.data(), words.size()), 600);
    Peer* found = nullptr;
    ASSERT_TRUE(board.waitUntil([&] {
        found = server.acceptedFrom(::getpid());
        return found != nullptr && found->received.size() == 512;
    }));
    Peer& accepted = *found;
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
        std::array<int, 2> written{};
        static_cast<void>(::pipe2(written.data(), O_CLOEXEC));
        char byte = 0;
        if (::fork() == 0) { // it writes, which does not make it the peer
            const std::string words = std::string(3000, 'w');
            static_cast<void>(::write(stream, words.data(), words.size()) + ::write(written[1], "x", 1));
            ::_exit(static_cast<int>(::read(leash[0], &byte, 1)));
        }
        static_cast<void>(::read(written[0], &byte, 1) == 1);
    });
    const pid_t pid = process.pid;
    process.end();
    Peer* found = nullptr;
    ASSERT_TRUE(board.waitUntil([&] {
        found = server.acceptedFrom(pid);
        return found != nullptr && found->hasPeerExited;
    }));
    Peer& accepted = *found;
    EXPECT_EQ(board.read(accepted.receivedAtExit).size(), GetParam() ? 512U : 3000U);
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
    const PeerProcess peer = openPeerProcessByPid(pair[0], process.pid);
    EXPECT_TRUE(peer.pidfd);
    EXPECT_EQ(peer.start, comm::processStartTicks(process.pid));
    const pid_t pid = process.pid;
    process.end();
    EXPECT_TRUE(openPeerProcessByPid(pair[0], pid).hasEnded);
    ASSERT_EQ(::write(pair[1], "x", 1), 1);
    ::close(pair[1]);
    const PeerProcess reused = openPeerProcessByPid(pair[0], ::getpid());
    EXPECT_FALSE(reused.pidfd || reused.hasEnded) << "the peer is gone, its number may be anybody's";
    ::close(pair[0]);
}

} // namespace
} // namespace kesa::commadapter::transport::test
