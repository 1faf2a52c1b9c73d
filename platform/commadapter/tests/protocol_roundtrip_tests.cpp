// Whatever one machine is told to send, the other hears: the same, in order, however the bytes are cut, and held back
// after each message or not.

#include "protocol_support.h"

#include <gmock/gmock.h>

#include <kesa/headers.h>

namespace kesa::commadapter::protocol {
namespace {

using namespace testing;
using util::config::Dictionary;
using util::config::Value;

Request richRequest()
{
    Request request("retrieve", "/tracks/7", text("{\"a\":1}", "application/json"));
    request.setMimeType("application/vnd.qelbin");
    request.setHeader(headers::RESPONSE_SEMANTIC, "persistent-stream");
    request.setHeader(headers::SERVICE_PATH, "/media/player");
    request.setHeader(headers::AUTH_TOKEN, 5); // not of the usual type: travels under its name
    request.setHeader(headers::ACCEPT, Value::Array{"application/json", "x/y"});
    request.setHeader("count", -70000);
    request.setHeader("huge", UINT64_MAX);
    request.setHeader("flag", true);
    request.setHeader("none", nullptr);
    request.setHeader("real", 1.5);
    request.setHeader("tree", Dictionary{{"list", Value::Array{1, "zwei", Dictionary()}}, {"ü", "ß"}});
    return request;
}

// Bare messages of each kind are vectors of the document; here they come together and in pieces.
TEST(ProtocolRoundTrip, WhatIsSentTogetherArrivesThroughAnyCut)
{
    Response answer(200, text("1", "application/json"));
    answer.setHeader(headers::REQUEST_PATH, "/tracks");
    const Request requests[] = {richRequest(),
                                Request(),
                                Request("move", "", text(std::string(4096, 'x'), "odd/type")),
                                Request("insert", "/big", large(4097)),
                                Request("retrieve", "/track/a"),
                                Request("retrieve", "/track/b")};
    std::vector<std::string> atServer = {"attach 1 /media/player"};
    for (std::uint32_t stream = 1; const Request& request : requests) {
        atServer.push_back(describe(stream++, 1, request));
    }
    atServer.insert(atServer.end(), {"cancel 77", "detached 1"});
    for (std::size_t atMost : {1U, 2U, 3U, 7U, 15U, 16U, 17U, 4096U, 70000U, 4095U, 70001U}) {
        Pair pair;
        if (atMost % 2 == 1) {
            pair.atServer.held = &pair.server;
        }
        pair.client.output.attach(1, "/media/player");
        for (std::uint32_t stream = 1; const Request& request : requests) {
            ASSERT_EQ(pair.client.output.request(stream++, 1, request), Sent::eQUEUED);
        }
        EXPECT_EQ(pair.client.output.cancel(77), Cancelled::eASKED);
        pair.client.output.detached(1);
        pair.client.output.ping();
        ASSERT_FALSE(feed(pair.server, takeAll(pair.client), atMost)) << pair.server.input.reason();
        EXPECT_EQ(pair.atServer.lines, atServer) << "at most " << atMost;
        EXPECT_EQ(pair.atServer.persistent, "1 ");
        EXPECT_EQ(pair.server.input.takePongsOwed(), 1U);
        EXPECT_EQ(pair.server.input.takePongsOwed(), 0U);

        pair.server.output.pong();
        ASSERT_EQ(pair.server.output.next(3, answer), Sent::eQUEUED);
        ASSERT_EQ(pair.server.output.next(4, Response(201, large(65000))), Sent::eQUEUED);
        pair.server.output.error(3, Response::createErrorResponse(409, "service already registered"));
        pair.server.output.completed(4);
        ASSERT_FALSE(feed(pair.client, takeAll(pair.server), atMost)) << pair.client.input.reason();
        EXPECT_EQ(
            pair.atClient.lines,
            (std::vector<std::string>{describe("next", 3, answer), describe("next", 4, Response(201, large(65000))),
                                      "error 3 409 <plain/text>service already registered", "completed 4"}))
            << "at most " << atMost;
        EXPECT_EQ(pair.server.output.queuedBytes(), 0U);
    }
}

TEST(ProtocolRoundTrip, TheReceiverSaysWhoTheClientIs)
{
    Pair pair;
    pair.server.input.setClientId("media");
    Request request("retrieve", "/");
    request.setHeader(headers::CLIENT_ID, "somebody else");
    ASSERT_EQ(pair.client.output.request(1, 1, request), Sent::eQUEUED);
    const Bytes sent = takeAll(pair.client);
    EXPECT_EQ(std::string(sent.begin(), sent.end()).find("somebody"), std::string::npos) << "it is not even sent";
    ASSERT_FALSE(feed(pair.server, sent));
    // From a sender of another make: under its number, and under its name.
    const Bytes forged = {10, 0, 0, 0,    5, 0,    10,  0,   2, 0,    0,   0,   1,
                          0,  0, 0, 0xBF, 7, 0x62, 'm', 'e', 4, 0x62, 'h', 'i', 0xFF};
    ASSERT_FALSE(feed(pair.server, forged)) << pair.server.input.reason();
    EXPECT_EQ(pair.atServer.lines,
              (std::vector<std::string>{"request 1 1 retrieve / <> {\"$client-id\":\"media\"}",
                                        "request 2 1   <> {\"$accept\":\"hi\",\"$client-id\":\"media\"}"}));
}

TEST(ProtocolRoundTrip, WhatCannotArriveIsRefusedAtTheSender)
{
    Limits ofServer;
    ofServer.maxMessageBytes = 100000;
    Pair pair({}, ofServer);
    Value deep = Value::Array{};
    for (int i = 0; i < 40; ++i) {
        deep = Value::Array{deep};
    }
    Request tooDeep("retrieve", "/");
    tooDeep.setHeader("deep", deep);
    Request wideHead("retrieve", "/");
    wideHead.setHeader("wide", std::string(61U << 10U, 'w'));
    Request badName("retrieve", "/");
    badName.setHeader("\xC0", 1);
    EXPECT_EQ(pair.client.output.request(1, 1, Request("retrieve", "/", large(100000))), Sent::eTOO_LARGE);
    EXPECT_THAT(pair.client.output.refusal(), ::testing::EndsWith("the configuration of the serving process"));
    EXPECT_EQ(pair.server.output.next(1, Response(200, large(100000))), Sent::eTOO_LARGE);
    EXPECT_THAT(pair.server.output.refusal(), ::testing::EndsWith("the configuration of the serving process"));
    EXPECT_EQ(pair.client.output.request(1, 1, wideHead), Sent::eTOO_LARGE);
    EXPECT_EQ(pair.client.output.request(1, 1, tooDeep), Sent::eINVALID);
    EXPECT_EQ(pair.client.output.request(1, 1, Request("retrieve", "/\xFF")), Sent::eINVALID);
    EXPECT_EQ(pair.client.output.request(1, 1, badName), Sent::eINVALID);
    EXPECT_EQ(pair.client.output.attach(1, std::string(5000, 'p')), Sent::eTOO_LARGE);
    EXPECT_EQ(pair.client.output.queuedBytes(), 0U) << "nothing of it is queued";

    // An error always gets through.
    pair.server.output.error(1, Response(409, large(200000)));
    ASSERT_FALSE(feed(pair.client, takeAll(pair.server)));
    EXPECT_EQ(pair.atClient.lines, (std::vector<std::string>{"error 1 409 <>"}));
    ASSERT_EQ(pair.client.output.request(1, 1, Request("retrieve", "/", large(99900))), Sent::eQUEUED);
    ASSERT_FALSE(feed(pair.server, takeAll(pair.client))) << pair.server.input.reason();
}

} // namespace
} // namespace kesa::commadapter::protocol
