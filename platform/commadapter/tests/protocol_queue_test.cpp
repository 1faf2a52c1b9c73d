// How messages leave: the order that is promised, fair turns of large ones, what can be taken back, what waits for
// credit, exact counting, and from when a peer owes an answer. That requests keep their order and their window is the
// simulation's.
// A seed decides what is sent, how many bytes a write takes and how the reader cuts them.

#include "protocol/ByteQueue.h"
#include "protocol_support.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <random>

namespace kesa::commadapter::protocol {
namespace {

using namespace testing;

std::vector<std::string> linesOf(const std::vector<std::string>& lines, std::uint32_t stream)
{
    std::vector<std::string> found;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
                 [stream](const std::string& line) { return std::stoul(line.substr(line.find(' '))) == stream; });
    return found;
}

/// One run of the property: a server that answers on a few streams, drops, ends, is written in pieces, is read in
/// pieces, and is given credit for what was read, now and then.
class Exchange {
public:
    /// Of every other seed, the reader takes few large messages at once; of some, its windows are tiny.
    explicit Exchange(unsigned seed)
        : m_random(seed), m_onlySmall(seed % 4 == 0),
          m_pair({.maxMessageBytes = seed % 2 == 0 ? Limits().maxMessageBytes : 500000,
                  .streamWindow = m_onlySmall ? UINT32_MAX : WINDOWS[seed % WINDOWS.size()]})
    {
        m_pair.atClient.window = m_onlySmall ? UINT32_MAX : WINDOWS[seed % WINDOWS.size()];
    }

    void go()
    {
        for (int step = 0; step < 200; ++step) {
            if (draw(3) > 0) {
                produce();
            }
            if (draw(4) == 0) {
                move(draw(2) == 0 ? draw(300) : draw(200000));
            }
            if (draw(8) == 0) {
                giveCredit();
            }
            checkCounts();
        }
        while (m_pair.server.output.queuedBytes() + m_pair.server.output.waitingBytes() > 0 &&
               !::testing::Test::HasFailure()) {
            move(1 + draw(300000));
            giveCredit();
        }
        ASSERT_EQ(m_pair.server.output.persistentBytes(), 0U);
        checkOrder();
    }

private:
    std::size_t draw(std::size_t bound) { return std::uniform_int_distribution<std::size_t>(0, bound - 1)(m_random); }

    void produce()
    {
        std::uint32_t& stream = m_streams[draw(m_streams.size())];
        const std::size_t what = draw(20);
        if (what < 2 && !m_onlySmall) {
            end(stream, what == 0);
            return;
        }
        const std::size_t bound = BOUNDS[draw(BOUNDS.size())]; // of frames and blocks
        const std::size_t size = what < 11                   ? draw(200)
                                 : what < 14 && !m_onlySmall ? bound
                                 : what < 17 || m_onlySmall  ? draw(60000)
                                                             : draw(400000);
        const Response response(static_cast<unsigned short>(m_count++), large(size));
        ASSERT_EQ(m_pair.server.output.next(stream, response, Recorder::isPersistent(stream)), Sent::eQUEUED);
        m_sent[stream].push_back(describe("next", stream, response));
        m_all.push_back(m_sent[stream].back());
    }

    void end(std::uint32_t& stream, bool isDropped)
    {
        if (isDropped) {
            m_pair.server.output.dropQueued(stream);
            m_dropped[stream] = true;
        }
        m_pair.server.output.completed(stream);
        m_sent[stream].push_back("completed " + std::to_string(stream));
        stream += 10;
    }

    /// For some of what each stream has brought.
    void giveCredit()
    {
        for (const std::uint32_t stream : m_streams) {
            std::size_t& taken = m_pair.atClient.taken[stream];
            if (taken > 0) {
                const std::size_t given = 1 + draw(taken);
                ASSERT_EQ(m_pair.server.output.takeCredit(stream, given), StreamWindows::Given::eTAKEN);
                taken -= given;
            }
        }
        for (auto& [stream, taken] : m_pair.atClient.taken) { // those that were ended
            if (taken > 0 && m_pair.server.output.isWaiting(stream)) {
                ASSERT_EQ(m_pair.server.output.takeCredit(stream, std::exchange(taken, 0)),
                          StreamWindows::Given::eTAKEN);
            }
        }
    }

    void move(std::size_t bytes)
    {
        const std::size_t queued = m_pair.server.output.queuedBytes();
        const Bytes some = take(m_pair.server, bytes, 1 + draw(8));
        ASSERT_EQ(m_pair.server.output.queuedBytes(), queued - some.size());
        ASSERT_FALSE(feed(m_pair.client, some, 1 + draw(100000))) << m_pair.client.input.reason();
    }

    static constexpr std::array<std::uint32_t, 3> WINDOWS = {100, STREAM_WINDOW, 1U << 20U};
    static constexpr std::array<std::size_t, 12> BOUNDS = {4095,  4096,  4097,   65530,  65531,  65532,
                                                           65533, 65536, 131061, 131062, 131063, 262144};

    void checkCounts()
    {
        std::size_t total = 0;
        std::size_t persistent = 0;
        for (const auto& [stream, sent] : m_sent) {
            const std::size_t queued = m_pair.server.output.queuedBytes(stream);
            total += queued;
            persistent += Recorder::isPersistent(stream) ? queued : 0;
        }
        ASSERT_EQ(total, m_pair.server.output.queuedBytes());
        persistent += m_pair.server.output.waitingBytes();
        // An end is no value, unless it waits; one value that is leaving may count as a whole.
        const std::size_t ends = HEADER_BYTES * m_sent.size();
        ASSERT_GE(m_pair.server.output.persistentBytes() + ends, persistent);
        ASSERT_LE(m_pair.server.output.persistentBytes(), persistent + 65'552);
    }

    void checkOrder()
    {
        for (const auto& [stream, sent] : m_sent) {
            const auto heard = linesOf(m_pair.atClient.lines, stream);
            if (!m_dropped[stream]) {
                EXPECT_EQ(heard, sent) << "stream " << stream;
            } else { // some are missing; the others are in order
                auto at = sent.begin();
                for (const std::string& line : heard) {
                    at = std::find(at, sent.end(), line);
                    ASSERT_NE(at, sent.end()) << "stream " << stream << " out of order: " << line;
                    ++at;
                }
            }
        }
        if (m_onlySmall) {
            EXPECT_EQ(m_pair.atClient.lines, m_all) << "the order across streams";
        }
    }

    std::mt19937 m_random;
    bool m_onlySmall;
    Pair m_pair;
    unsigned m_count = 0;
    std::array<std::uint32_t, 5> m_streams = {1, 2, 3, 4, 5};
    std::map<std::uint32_t, std::vector<std::string>> m_sent;
    std::map<std::uint32_t, bool> m_dropped;
    std::vector<std::string> m_all;
};

TEST(ProtocolQueue, EachStreamKeepsItsOrderWhateverTheCuts)
{
    for (unsigned seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Exchange(seed).go();
        if (HasFailure()) {
            return;
        }
    }
}

TEST(ProtocolQueue, LargeMessagesTakeTurnsAndStarveNobody)
{
    Pair pair;
    for (std::uint32_t stream = 1; stream <= 40; ++stream) { // more than go on at once
        ASSERT_EQ(pair.server.output.next(stream, Response(200, large(stream == 1 ? 1000000 : 100000))), Sent::eQUEUED);
    }
    // A steady flow of small ones neither stops the large ones nor is stopped by them.
    std::size_t small = 0;
    while (pair.server.output.queuedBytes() > 0) {
        if (small < 400) {
            ASSERT_EQ(pair.server.output.next(100, Response(200, large(40000))), Sent::eQUEUED);
            ++small;
        }
        ASSERT_FALSE(feed(pair.client, take(pair.server, 40000))) << pair.client.input.reason();
    }
    const auto& lines = pair.atClient.lines;
    const auto at = [&](std::uint32_t stream) {
        return std::find(lines.begin(), lines.end(), linesOf(lines, stream).at(0)) - lines.begin();
    };
    ASSERT_EQ(lines.size(), 40 + small);
    EXPECT_GT(at(1), at(20)) << "the longest does not hold up the others";
    EXPECT_LT(at(100), at(2)) << "nor do they hold up small ones";
    EXPECT_LT(at(40), 400) << "nor small ones them";
}

TEST(ProtocolQueue, ARequestThatIsTakenBackLeavesTheWindowAsItWas)
{
    Pair pair;
    auto& output = pair.client.output;
    for (const std::size_t size : {std::size_t{60'000}, REQUEST_WINDOW}) { // one of a frame, one of fragments
        for (std::size_t bytes = 0; bytes < REQUEST_WINDOW; bytes += size) {
            ASSERT_EQ(output.request(1, 1, Request("update", "/", large(size))), Sent::eQUEUED);
            ASSERT_EQ(output.cancel(1), Cancelled::eNEVER_SENT);
        }
    }
    EXPECT_EQ(output.queuedBytes() + output.waitingBytes(), 0U);
    ASSERT_EQ(output.request(1, 1, Request("update", "/", large(1000))), Sent::eQUEUED);
    EXPECT_EQ(output.waitingBytes(), 0U);
}

TEST(ProtocolQueue, ManySmallMessagesLeaveInOnePiece)
{
    Pair pair;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(pair.server.output.next(1, Response(200, large(64))), Sent::eQUEUED);
    }
    iovec out[4];
    EXPECT_EQ(pair.server.output.gather(out), 1U);
    EXPECT_EQ(out[0].iov_len, pair.server.output.queuedBytes());
}

TEST(ProtocolQueue, BlockOfABurstIsGivenBackWhileBytesComeAndGo)
{
    const std::vector<unsigned char> some(1000, 'x');
    for (const bool isTakenBack : {false, true}) {
        ByteQueue queue;
        for (int i = 0; i < 10'000; ++i) {
            queue.append(some.data(), some.size());
        }
        while (queue.size() > 2000) {
            isTakenBack ? queue.truncate(queue.size() - 2000) : queue.consume(2000);
            *queue.extend(1000) = 'y';
        }
        EXPECT_LT(queue.capacityForTest(), 300U << 10U);
        EXPECT_EQ(queue.data()[queue.size() - 1000], 'y');
    }
}

TEST(ProtocolQueue, NobodyIsJudgedByAPingThatHasNotLeft)
{
    using comm::SECOND;
    Pair pair;
    std::string why;
    ASSERT_EQ(pair.client.output.request(1, 1, Request("update", "/", large(60000))), Sent::eQUEUED);
    pair.client.output.probe(20 * SECOND);
    iovec out[4];
    ASSERT_GT(pair.client.output.gather(out), 0U);
    pair.client.output.sent(1000, 24 * SECOND);
    EXPECT_EQ(pair.client.output.nextDeadline(), 29 * SECOND);
    EXPECT_TRUE(pair.client.output.expired(29 * SECOND, why)) << "nothing moved since";
}

TEST(ProtocolQueue, PingsThatCannotBeAnsweredDoNotPileUp)
{
    Pair pair;
    for (int i = 0; i < 10000; ++i) {
        pair.server.output.pong();
    }
    EXPECT_EQ(pair.server.output.queuedBytes(), 16U);
    EXPECT_EQ(takeAll(pair.server).size(), 16U);
    pair.server.output.pong();
    EXPECT_EQ(pair.server.output.queuedBytes(), 16U) << "the next one is answered again";
}

} // namespace
} // namespace kesa::commadapter::protocol
