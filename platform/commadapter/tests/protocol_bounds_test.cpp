// What a peer may not do, with the reason each time; and that it cannot make us keep more than it sends. Some of it
// stands in the document, whose vectors are tried elsewhere.

#include "protocol/Body.h"
#include "protocol_support.h"

#include <gtest/gtest.h>

namespace kesa::commadapter::protocol {
namespace {

using namespace testing;

/// Headers alone, with lengths that are not backed by bytes.
Bytes claim(std::uint32_t length, std::uint16_t head)
{
    Bytes bytes(HEADER_BYTES);
    writeHeader(bytes.data(), {length, 5, 0, head, 1, 1});
    return bytes;
}

/// The first fragment of a request that declares `size` bytes of body.
Bytes firstFragment(std::uint32_t stream, std::uint32_t size)
{
    Bytes head = {0xBF, 3, 0x1A};
    for (unsigned shift : {24U, 16U, 8U, 0U}) {
        head.push_back(static_cast<unsigned char>(size >> shift));
    }
    head.push_back(0xFF);
    return frame(5, FLAG_MORE, stream, 1, head, FRAME_BYTES - head.size());
}

Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Bytes hello(const Bytes& versions = {16, 2, 17, 2})
{
    return frame(1, 0, 0, 0, joined({{0xBF}, versions, {0xFF}}));
}

std::string reasonOf(Role role, const Bytes& bytes, const Limits& limits = {}, std::size_t atMost = SIZE_MAX)
{
    Recorder recorder;
    Machine machine(role, helloOf("me"), limits, recorder, 0);
    if (!feed(machine, bytes, atMost)) {
        return "";
    }
    const std::size_t heard = recorder.lines.size();
    EXPECT_TRUE(machine.input.received(0, 0)) << "it stays so";
    EXPECT_FALSE(machine.input.buffer().empty());
    EXPECT_EQ(recorder.lines.size(), heard);
    return machine.input.reason();
}

/// What is wrong behind a hello, and the reason.
using Offences = std::vector<std::pair<Bytes, std::string>>;

void expectReasons(Role role, const Offences& offences)
{
    for (const auto& [bytes, reason] : offences) {
        EXPECT_EQ(reasonOf(role, joined({hello(), bytes})), reason);
        EXPECT_EQ(reasonOf(role, joined({hello(), bytes}), {}, 1), reason) << "byte by byte";
    }
}

TEST(ProtocolBounds, TheFirstMessageIsHelloAndOnlyTheFirst)
{
    const std::string broken = "broken head of hello: ";
    for (const auto& [bytes, reason] : Offences{
             {frame(10, 0, 0, 0), "first message is of kind 10, not hello"},
             {joined({hello(), hello()}), "second hello"},
             {hello({16, 1, 17, 1}), "no common protocol version: this side speaks 2 to 2, the peer 1 to 1"},
             {hello({16, 3, 17, 9}), "no common protocol version: this side speaks 2 to 2, the peer 3 to 9"},
             {hello({16, 0, 17, 9}), ""}, // the highest common one is 2
             {frame(1, 0, 0, 0), broken + "it ends inside a value"},
             {hello({16, 0x61, 'a'}), broken + "a value is not a number in its range"},
             {hello({20, 0x41, 0}), broken + "the instance is not 16 bytes"},
             {hello({21, 1}), broken + "the listeners are not an array"},
             {hello({24, 24, 0}), broken + "a stream window of 0 bytes"},
         }) {
        EXPECT_EQ(reasonOf(Role::eSERVER, bytes), reason);
    }
}

TEST(ProtocolBounds, RolesNumbersAndParts)
{
    const Bytes path = {0xBF, 1, 0x62, '/', 'a', 0xFF};
    const Offences ofClient = {
        {frame(3, 0, 0, 1), "attached from a client"},
        {frame(2, 0, 3, 1, path), "attach with stream 3"},
        {frame(2, 0, 0, 1, path, 1), "attach with a body"},
        {frame(2, 1, 0, 1, path), "attach in fragments"},
        {frame(2, 0, 0, 1), "attach of a path of 0 bytes"},
        {frame(5, 0, 0, 1), "request without a stream"},
        {frame(9, 0, 1, 1), "cancel with target 1"},
        {frame(10, 4, 0, 0), "unknown flags 0x04"},
        {frame(13, 0, 0, 1), "credit without a stream"},
        {claim(10, 11), "head of 11 bytes in a frame of 10"},
        {claim(65536, 61441), "head of 61441 bytes, more than 61440"},
    };
    expectReasons(Role::eSERVER, ofClient);
    expectReasons(Role::eCLIENT, {{frame(5, 0, 1, 1), "request from a server"},
                                  {frame(8, 0, 1, 200), "completed with target 200"},
                                  {frame(13, 0, 1, 1), "credit from a server"}});
}

TEST(ProtocolBounds, UnknownKindsThatMayBeIgnoredAreSkipped)
{
    Pair pair;
    ASSERT_FALSE(feed(pair.server, joined({frame(200, FLAG_MAY_BE_IGNORED | FLAG_MORE, 7, 7, {1, 2, 3}, 60000),
                                           frame(10, FLAG_MAY_BE_IGNORED, 0, 0), frame(9, 0, 4, 0)})));
    EXPECT_EQ(pair.atServer.lines, (std::vector<std::string>{"cancel 4"}));
    EXPECT_EQ(pair.server.input.takePongsOwed(), 1U);
}

TEST(ProtocolBounds, BrokenHeads)
{
    Bytes deep(33, 0x9F);
    deep.resize(66, 0xFF);
    const Offences heads = {
        {{0xA1, 0, 0, 0}, "bytes follow the map"},
        {{0xBF, 0, 4, 0xFF}, "a word has an unknown number"},
        {{0xBF, 0, 0, 0, 1, 0xFF}, "a member stands twice"},
        {{0xBF, 1, 0x61, 0xFF, 0xFF}, "text is not UTF-8"},
        {{0xBF, 1, 0x7B, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, "it ends inside a value"},
        {{0xBF, 1, 0x7F, 0x61, 'a', 0xFF, 0xFF}, "indefinite length of a wrong item"},
        {{0xBF, 0x20, 1, 0xFF}, "a key is neither a number nor text"},
        {{0xBF, 0x61, 'k', 0xA1, 1, 1, 0xFF}, "key of an inner map is not text"},
        {{0xBF, 0x61, 'k', 0x3B, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, "integer out of range"},
        {{0xBF, 0x61, 'k', 0xF7, 0xFF}, "unknown simple value"},
        {joined({{0xBF, 0x61, 'k'}, deep, {0xFF}}), "nested too deeply"},
    };
    for (const auto& [head, why] : heads) {
        EXPECT_EQ(reasonOf(Role::eSERVER, joined({hello(), frame(5, 0, 1, 1, head)})),
                  "broken head of request: " + why);
    }
    // Of a later version or tagged: read over. Of a form this side has no value for: there, and nothing.
    const Bytes odd = {0xBF, 14, 0x9F, 1, 0xFF, 0x18, 99, 0xF6, 0xC1, 1, 0xC1, 0x61, 'p', 0x61, 'b', 0x41, 0, 0xFF};
    Pair pair;
    ASSERT_FALSE(feed(pair.server, frame(5, 0, 1, 1, odd))) << pair.server.input.reason();
    EXPECT_EQ(pair.atServer.lines, (std::vector<std::string>{R"(request 1 1  p <> {"b":null})"}));
}

TEST(ProtocolBounds, FragmentsAreFullCountedAndOfOneMessage)
{
    const Bytes first = firstFragment(1, 200000);
    const std::string shortfall = "fragments of stream 1 do not make the 200000 bytes declared";
    const std::string between = " of stream 1 between the fragments of another message";
    const Bytes next = frame(5, FLAG_MORE, 1, 1, {}, FRAME_BYTES);
    Bytes cancel = frame(9, 0, 1, 0);
    Bytes plain = frame(5, 0, 1, 1, {0xBF, 0xFF});
    expectReasons(
        Role::eSERVER,
        {
            {frame(5, FLAG_MORE, 1, 1, {0xBF, 0xFF}, 100), "fragment of 102 bytes, all but the last have 65536"},
            {frame(5, FLAG_MORE, 1, 1, {0xBF, 0xFF}, FRAME_BYTES - 2), "fragmented request without a body size"},
            {firstFragment(1, 10), "fragments of stream 1 do not make the 10 bytes declared"},
            {joined({first, frame(5, 0, 1, 1, {}, 10)}), shortfall},
            {joined({first, next, next, next}), shortfall},
            {joined({firstFragment(1, 2 * FRAME_BYTES - 8), next}),
             "fragments of stream 1 do not make the 131064 bytes declared"},
            {joined({first, cancel}), "cancel" + between},
            {joined({first, plain}), "request" + between},
            {joined({first, frame(5, FLAG_MORE, 1, 2, {}, FRAME_BYTES)}), "request" + between},
            {firstFragment(1, 16777216), "request of 16777224 bytes, more than 16777216"},
        });
    Bytes many = hello();
    for (std::uint32_t stream = 1; stream <= MAX_INTERLEAVED + 1; ++stream) {
        many = joined({many, firstFragment(stream, 200000)});
    }
    EXPECT_EQ(reasonOf(Role::eSERVER, many), "more than 16 fragmented messages at once");
    Limits limits;
    limits.maxMessageBytes = 400000;
    EXPECT_EQ(reasonOf(Role::eSERVER, joined({hello(), firstFragment(1, 200000), firstFragment(2, 200000)}), limits),
              "request of 200008 bytes while others of 200008 are not complete, together more than 400000");
    limits.maxMessageBytes = 1000;
    EXPECT_EQ(reasonOf(Role::eSERVER, joined({hello(), frame(5, 0, 1, 1, {}, 1001)}), limits),
              "request of 1001 bytes, more than 1000");
}

TEST(ProtocolBounds, AMessageForWhichThereIsNoRoomWaitsAsAWhole)
{
    Pair pair;
    for (const std::size_t size : {200000U, 20000U}) { // in fragments, and in one frame that is not all there
        pair.atServer.room = IMachineListener::Room::eLATER;
        ASSERT_EQ(pair.client.output.request(1, 1, Request("update", "", large(size))), Sent::eQUEUED);
        pair.client.output.ping();
        ASSERT_FALSE(feed(pair.server, take(pair.client, std::min(size, FRAME_BYTES + HEADER_BYTES), 16)));
        EXPECT_TRUE(pair.server.input.isWaiting());
        EXPECT_EQ(pair.server.input.unfinishedBytes(), 0U);
        pair.atServer.room = IMachineListener::Room::eTHERE;
        ASSERT_FALSE(pair.server.input.readOn());
        EXPECT_FALSE(pair.server.input.isWaiting());
        EXPECT_GT(pair.server.input.unfinishedBytes(), size);
        ASSERT_FALSE(feed(pair.server, takeAll(pair.client)));
        EXPECT_EQ(std::exchange(pair.atServer.lines, {}).size(), 1U);
        EXPECT_EQ(pair.server.input.unfinishedBytes(), 0U);
        EXPECT_EQ(pair.server.input.takePongsOwed(), 1U);
    }

    pair.atServer.room = IMachineListener::Room::eNONE;
    ASSERT_EQ(pair.client.output.request(2, 1, Request("update", "", large(200000))), Sent::eQUEUED);
    EXPECT_TRUE(feed(pair.server, takeAll(pair.client)));
    EXPECT_EQ(pair.server.input.reason(), "request of a stream that is in use");
}

TEST(ProtocolBounds, ABodyGrowsWithWhatArrivesNotWithWhatIsDeclared)
{
    const Bytes some(1000, 'x');
    Body body(UINT32_MAX);
    while (body.size() < 1'000'000) {
        body.append(some.data(), some.size());
        ASSERT_LE(body.capacity(), std::max(Body::FIRST_BYTES, 4 * body.size()));
    }
    Body exact(100000);
    while (exact.missing() > 0) {
        exact.append(some.data(), some.size());
    }
    EXPECT_EQ(exact.capacity(), 100000U);
}

TEST(ProtocolBounds, AsMuchAsHasArrivedWholeIsKeptAtOnceForOneBodyAtATime)
{
    constexpr std::uint32_t SIZE = 1U << 20U;
    Recorder recorder;
    Machine machine(Role::eSERVER, helloOf("me"), {}, recorder, 0);
    ASSERT_FALSE(feed(machine, hello()));
    /// Begins a body, up to the second fragment, for which there is room at once or not.
    const auto begin = [&machine](std::uint32_t stream, std::uint32_t size) {
        EXPECT_FALSE(feed(machine, firstFragment(stream, size)));
        const Bytes second = frame(5, FLAG_MORE, stream, 1, {}, FRAME_BYTES);
        EXPECT_FALSE(feed(machine, std::span(second).first(HEADER_BYTES)));
        return machine.input.buffer().size() >= FRAME_BYTES;
    };
    const auto end = [&machine](std::uint32_t stream) { // of what `begin` began
        EXPECT_FALSE(feed(machine, Bytes(FRAME_BYTES, 'b')));
        const std::uint32_t headBytes = 8;
        for (std::uint32_t left = SIZE + headBytes - 2 * FRAME_BYTES; left > 0;) {
            const std::uint32_t size = std::min<std::uint32_t>(left, FRAME_BYTES);
            left -= size;
            EXPECT_FALSE(feed(machine, frame(5, left > 0 ? FLAG_MORE : 0, stream, 1, {}, size)));
        }
    };
    EXPECT_FALSE(begin(1, SIZE)) << "nothing has arrived yet";
    end(1);
    recorder.requestsTaken = 0;
    EXPECT_TRUE(begin(1, 8 * SIZE)) << "whatever is declared, as much as arrived";
    EXPECT_FALSE(feed(machine, Bytes(FRAME_BYTES, 'b')));
    EXPECT_FALSE(begin(2, SIZE)) << "another one is under way";
    end(2);
    ASSERT_EQ(recorder.lines.size(), 3U);
}

} // namespace
} // namespace kesa::commadapter::protocol
