// The memory network: streams keep their bytes and the order of them whatever faults are drawn, names belong to one
// process at a time, and the end of a process or a connection is seen by those who should see it. In simulated time,
// but for the last test.

#include "transport/MemoryNetwork.h"
#include "transport_support.h"

#include <comm/Scheduler.h>
#include <comm/SimulatedScheduler.h>

#include <gtest/gtest.h>

namespace kesa::commadapter::transport::test {
namespace {

const Endpoint SERVER{"ipc", "server", "", ""};

/// A server (group 2) and a client (group 1) on loops of their own.
class Pair {
public:
    explicit Pair(MemoryNetwork& network)
        : clientLoop(comm::Scheduler::current().makeReactor("client")),
          serverLoop(comm::Scheduler::current().makeReactor("server")), client(board, *clientLoop),
          server(board, *serverLoop), m_clientSide(network.makeTransport(clientLoop, 1)),
          m_serverSide(network.makeTransport(serverLoop, 2))
    {
        std::string why;
        EXPECT_FALSE(m_serverSide->listen(
            "server", [this](std::unique_ptr<IStream> stream) { server.start(std::move(stream)); }, why));
        clientLoop->post([this] { connect(); });
    }
    ~Pair()
    {
        for (const auto& loop : {clientLoop, serverLoop}) {
            loop->post([this, &loop] { (loop == clientLoop ? client : server).close(); });
            loop->stop();
        }
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    Board board;
    std::shared_ptr<comm::Reactor> clientLoop;
    std::shared_ptr<comm::Reactor> serverLoop;
    Peer client;
    Peer server;

private:
    void connect()
    {
        m_clientSide->connect(SERVER, [this](ITransport::Connected connected) {
            if (connected.stream) {
                client.start(std::move(connected.stream));
            } else {
                ASSERT_EQ(connected.failure, ITransport::Failure::eBUSY);
                clientLoop->startTimer(comm::now() + comm::MILLISECOND, [this] { connect(); });
            }
        });
    }

    std::unique_ptr<ITransport> m_clientSide;
    std::unique_ptr<ITransport> m_serverSide;
};

class TransportMemory : public testing::Test {
protected:
    void SetUp() override { use(1); }
    void TearDown() override
    {
        EXPECT_EQ(network.openStreams(), 0U);
        comm::Scheduler::install(nullptr);
    }
    void use(std::uint64_t seed)
    {
        scheduler = std::make_unique<comm::SimulatedScheduler>(seed);
        comm::Scheduler::install(scheduler.get());
    }
    MemoryNetwork::Faults faults()
    {
        MemoryNetwork::Faults faults;
        faults.draw = [this](std::uint64_t bound) { return scheduler->draw(bound); };
        return faults;
    }

    std::unique_ptr<comm::SimulatedScheduler> scheduler;
    MemoryNetwork network;
};

TEST_F(TransportMemory, EveryByteArrivesInOrderWhateverTheFaults)
{
    const std::string question = pattern(20'000, 1);
    const std::string answer = pattern(30'000, 2);
    for (std::uint64_t seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        use(seed);
        MemoryNetwork::Faults drawn = faults();
        drawn.shortReadPercent = static_cast<unsigned>(scheduler->draw(2) * 60);
        drawn.shortWritePercent = static_cast<unsigned>(scheduler->draw(2) * 60);
        drawn.refusePercent = static_cast<unsigned>(scheduler->draw(2) * 70);
        drawn.longestDelay = static_cast<comm::TimeNs>(scheduler->draw(3)) * comm::MILLISECOND;
        drawn.pipeBytes = 100 + scheduler->draw(4000);
        network.setFaults(drawn);
        Pair pair(network);
        scheduler->runFor(comm::SECOND);
        pair.client.send(question);
        pair.server.send(answer);
        ASSERT_TRUE(scheduler->runAll());
        EXPECT_TRUE(pair.server.received == question);
        EXPECT_TRUE(pair.client.received == answer);
        EXPECT_FALSE(pair.server.isEnded);
        EXPECT_EQ(pair.server.identity.pid, 1);

        // What was written before the end is read before it.
        pair.clientLoop->post([&pair] {
            pair.client.send("bye");
            pair.client.close();
        });
        scheduler->runAll();
        EXPECT_TRUE(pair.server.received == question + "bye");
        EXPECT_TRUE(pair.server.isEnded);
    }
}

TEST_F(TransportMemory, AFullPipeStopsTheWriterUntilBytesAreRead)
{
    MemoryNetwork::Faults small;
    small.pipeBytes = 10;
    network.setFaults(small);
    Pair pair(network);
    scheduler->runReady();
    scheduler->pauseGroup(0);
    pair.client.send(pattern(15, 0));
    EXPECT_FALSE(scheduler->step());
    scheduler->continueGroup(0);
    scheduler->runAll();
    EXPECT_EQ(pair.server.received, pattern(15, 0));
    EXPECT_EQ(pair.client.writables, 1);
}

TEST_F(TransportMemory, AKilledProcessHearsNothingAndItsPeersReadItsLastBytes)
{
    for (const unsigned heldOpenPercent : {0U, 100U}) {
        use(7);
        MemoryNetwork::Faults drawn = faults();
        drawn.heldOpenPercent = heldOpenPercent;
        network.setFaults(drawn);
        Pair pair(network);
        scheduler->runReady();
        pair.server.send("last words");
        pair.client.send("unheard");
        network.kill(2);
        scheduler->runAll();
        EXPECT_EQ(pair.client.received, "last words");
        EXPECT_EQ(pair.server.received, "");
        EXPECT_FALSE(pair.server.isEnded);
        EXPECT_EQ(pair.client.isEnded, heldOpenPercent == 0);
        EXPECT_EQ(pair.client.hasPeerExited, heldOpenPercent == 100);

        std::string why;
        const auto next = network.makeTransport(pair.serverLoop, 3);
        EXPECT_FALSE(next->listen(
            "server", [](std::unique_ptr<IStream>) {}, why));
    }
}

TEST_F(TransportMemory, ACutLosesASuffixOfWhatWasUnread)
{
    bool wasPartial = false;
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        use(seed);
        network.setFaults(faults());
        Pair pair(network);
        scheduler->runReady();
        pair.client.send(pattern(100, 0));
        network.cut(2, 1);
        scheduler->runAll();
        EXPECT_TRUE(pair.client.isEnded && pair.server.isEnded);
        EXPECT_EQ(pair.server.received, pattern(100, 0).substr(0, pair.server.received.size()));
        wasPartial = wasPartial || (!pair.server.received.empty() && pair.server.received.size() < 100);
    }
    EXPECT_TRUE(wasPartial);
}

TEST_F(TransportMemory, ANameBelongsToOneProcessAndItsAppearanceIsReported)
{
    const auto loop = comm::Scheduler::current().makeReactor("loop");
    const auto first = network.makeTransport(loop, 11);
    const auto second = network.makeTransport(loop, 12);
    const auto ignore = [](std::unique_ptr<IStream>) {};
    int appeared = 0;
    auto failure = ITransport::Failure::eOTHER;
    loop->post([&] {
        second->watchEndpoint(SERVER, [&appeared] { ++appeared; });
        second->connect(SERVER, [&](ITransport::Connected connected) { failure = connected.failure; });
    });
    scheduler->runReady();
    EXPECT_EQ(failure, ITransport::Failure::eMISSING);
    EXPECT_EQ(appeared, 0);

    std::string why;
    EXPECT_FALSE(first->listen("server", ignore, why));
    EXPECT_FALSE(first->listen("server", ignore, why));
    EXPECT_TRUE(second->listen("server", ignore, why));
    EXPECT_EQ(why, "the name \"server\" is held by process 11");
    EXPECT_EQ(first->ownEndpoint()->toString(), "ipc://server+" + network.realm());
    EXPECT_TRUE(second->canHandle(*first->ownEndpoint()));
    EXPECT_FALSE(second->canHandle({"ipc", "server", MemoryNetwork().realm(), ""}));
    scheduler->runReady();
    EXPECT_EQ(appeared, 1);

    loop->post([&first] { first->close(); });
    scheduler->runReady();
    EXPECT_FALSE(second->listen("server", ignore, why));
    scheduler->runReady();
    EXPECT_EQ(appeared, 2);
    loop->stop();
}

TEST(TransportMemoryThreads, WritersOnAnyThreadLoseNothing)
{
    MemoryNetwork network;
    MemoryNetwork::Faults small;
    small.pipeBytes = 5000;
    network.setFaults(small);
    Pair pair(network);
    ASSERT_TRUE(pair.board.waitUntil([&] { return pair.client.isConnected && pair.server.isConnected; }));
    const std::string bytes = pattern(100'000, 3);
    pair.client.send(bytes);
    pair.server.send(bytes);
    EXPECT_TRUE(pair.board.waitUntil(
        [&] { return pair.client.received.size() == bytes.size() && pair.server.received.size() == bytes.size(); }));
    EXPECT_TRUE(pair.client.received == bytes && pair.server.received == bytes);
}

} // namespace
} // namespace kesa::commadapter::transport::test
