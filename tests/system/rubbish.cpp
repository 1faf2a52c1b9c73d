// Peers that are only sockets, and break every rule there is. Each is cut off with a trace that says why, or waits, and
// nobody else notices.

#include "RawPeer.h"
#include "SystemTest.h"

#include <deque>

namespace kesa::system_test {
namespace {

class SystemRubbish : public SystemTest {
protected:
    SystemRubbish() : m_provider(startProvider("media", "/player")) { startBystander(PLAYER); }

    Process& provider() { return m_provider; }
    RawPeer connect() { return {runDirectory(), "media"}; }
    void expectMemoryBelow(std::size_t kibBefore, std::size_t moreMiB)
    {
        expectUndisturbed();
        const std::size_t now = m_provider.residentKiB();
        if (!IS_SANITIZED) {
            EXPECT_LT(now, kibBefore + (moreMiB << 10U));
        }
    }

private:
    Process& m_provider;
};

TEST_F(SystemRubbish, BrokenFramesEndTheirConnectionWithAReason)
{
    const std::string hello = wire::hello();
    // One of each part that judges what arrives; the protocol's own tests have the others.
    const std::pair<std::string, const char*> all[] = {
        {"GET /player HTTP/1.1\r\nHost: media\r\n\r\n", "frame of 542393671 bytes, more than 65536"},
        {wire::frame(wire::eATTACH, 0, 1, "\xbf\xff"), "first message is of kind 2, not hello"},
        {hello + wire::frame(wire::eREQUEST, 1, 1, std::string(40, '\x9f')), "broken head of request"},
    };
    for (const auto& [bytes, reason] : all) {
        SCOPED_TRACE(reason);
        RawPeer peer = connect();
        peer.send(bytes);
        peer.awaitClosed();
        provider().expectTrace(reason);
        expectUndisturbed();
    }
}

TEST_F(SystemRubbish, ThousandsOfConnectionsLeaveNothingBehind)
{
    const std::size_t descriptors = provider().openDescriptors();
    std::size_t before = 0;
    for (int round = 0; round < 6; ++round) {
        for (int count = 0; count < (IS_SANITIZED ? 100 : 500); ++count) {
            RawPeer peer = connect();
            peer.send(count % 3 == 0 ? std::string() : wire::hello() + wire::attach(1, "/player"));
        }
        expectUndisturbed();
        if (round == 1) {
            before = provider().residentKiB(); // once the allocator has what it needs
        }
    }
    expectMemoryBelow(before, 16);
    // The last ones may still be on their way out.
    for (int tries = 0; provider().openDescriptors() > descriptors && tries < 1000; ++tries) {
        expectUndisturbed();
    }
    EXPECT_EQ(provider().openDescriptors(), descriptors);
}

// It asks and asks, and never takes an answer.
TEST_F(SystemRubbish, APeerThatTakesNoAnswersIsReadNoFurther)
{
    const std::size_t before = provider().residentKiB();
    std::string echoes;
    std::string attaches;
    for (std::uint32_t number = 2; number < 2000; ++number) {
        echoes += wire::request(number, 33, "/echo");
        attaches += wire::frame(wire::eDETACHED, 0, number) + wire::attach(number, "/player") +
                    wire::request(number, number, "/nothing");
    }
    for (const std::string& batch : {echoes, attaches}) {
        const std::size_t descriptors = provider().openDescriptors();
        RawPeer peer = connect();
        peer.send(wire::hello());
        constexpr std::size_t BYTES = std::size_t{64} << 20U;
        std::size_t sent = 0;
        for (int refusals = 0; sent < BYTES && refusals < 3;) {
            const std::size_t size = peer.sendSome(std::string_view(batch).substr(sent % batch.size()));
            sent += size;
            if (size == 0) {
                expectUndisturbed(); // by the loop that would read on
            }
            refusals = size == 0 ? refusals + 1 : 0;
        }
        EXPECT_LT(sent, BYTES) << "everything it sends is taken";
        expectMemoryBelow(before, 64);
        peer.close();
        for (int tries = 0; provider().openDescriptors() > descriptors && tries < 1000; ++tries) {
            expectUndisturbed();
        }
        EXPECT_EQ(provider().openDescriptors(), descriptors);
    }
}

TEST_F(SystemRubbish, WithoutDescriptorsClientsWaitAndThenComeIn)
{
    if (IS_SANITIZED) {
        GTEST_SKIP() << "the sanitizers need descriptors of their own";
    }
    provider().limitDescriptors(0); // whatever has used them up
    connect();
    provider().expectTrace("clients wait, tried again every 100 ms: Too many open files");
    Process& client = start("client");
    client.send("resolve " + PLAYER);
    expectUndisturbed();
    provider().freeDescriptors();
    client.expect("connected " + PLAYER);
    client.send("call within " + PLAYER + " /echo");
    client.expect("completed within");
    expectUndisturbed();
}

} // namespace
} // namespace kesa::system_test
