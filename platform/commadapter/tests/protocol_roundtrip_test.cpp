// What a receiver adds to what it hears, and what a sender refuses since it could not arrive. That whatever is sent is
// heard is for the vectors of the document, whatever the cuts for ProtocolQueue.

#include "protocol_support.h"

#include <gmock/gmock.h>

#include <kesa/headers.h>

namespace kesa::commadapter::protocol {
namespace {

using namespace testing;
using util::config::Value;

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
