// Values of persistent streams that are not handled as fast as they come: they wait at the server, as far as its policy
// lets them. `Receipt` says when one has been handled.

#include "CarelessPeer.h"

#include <kesa/Receipt.h>

#include <deque>

namespace kesa::commadapter::test {
namespace {

using protocol::Role;
using testing::AllOf;
using testing::Contains;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;

constexpr std::size_t WINDOW = 4096;
constexpr std::size_t FIT = 5; // the last one begins before the window is used up

class BackendWindows : public SimulatedStreams {
protected:
    BackendWindows()
    {
        settings.streamWindow = WINDOW;
        begin();
    }
    /// A stream whose values are handled when the test says so.
    std::shared_ptr<Outcome> open(QueuePolicy with = QueuePolicy::eCUT_STREAM)
    {
        policy = with;
        auto outcome = client->request(persistent());
        outcome->onValue = [this] { receipts.push_back(Receipt::take()); };
        settle();
        handler = service.handlers().back();
        return outcome;
    }
    int send(int most)
    {
        const int sent = flood(*handler, most);
        settle();
        return sent;
    }
    void handle(std::size_t count)
    {
        for (; count > 0 && !receipts.empty(); --count) {
            receipts.pop_front();
        }
        settle();
    }
    bool isNothingLeft() const
    {
        return server->describe().find(R"("openRequests":0,"queuedBytes":0)") != std::string::npos &&
               clientBackend->describe().find(R"("openRequests":0,"queuedBytes":0)") != std::string::npos;
    }

    CheckedService::Kept handler; ///< of the last stream
    std::deque<Receipt> receipts;
};

TEST_F(BackendWindows, WhatIsNotHandledWaitsAtTheServerAndTheEndBehindIt)
{
    const auto stream = open();
    const auto quick = client->request(persistent());
    settle();
    const auto quickly = service.handlers().back();
    EXPECT_EQ(send(50), 50);
    EXPECT_EQ(stream->values.size(), FIT);
    handler->onCompleted();
    bool isDrained = false;
    peer->whenDrained([&] { isDrained = true; });
    for (int i = 0; i < 200; ++i) {
        EXPECT_FALSE(quickly->onNext(value(numbered(i))));
        settle();
    }
    EXPECT_EQ(quick->values.size(), 200U) << "who keeps no receipt has handled it";
    const auto call = client->request(retrieve("/echo", "x"));
    settle();
    EXPECT_TRUE(call->isCompleted);
    EXPECT_FALSE(stream->isCompleted || isDrained);

    handle(1);
    EXPECT_EQ(stream->values.size(), FIT) << "credit comes for half a window at least";
    for (std::size_t before = FIT; !stream->isCompleted; before = stream->values.size()) {
        handle(3);
        ASSERT_THAT(stream->values.size(), AllOf(Ge(before + 1), Le(before + FIT)));
    }
    EXPECT_EQ(stream->values.size(), 50U);
    EXPECT_TRUE(isDrained);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(stream->values[static_cast<std::size_t>(i)], numbered(i));
    }
    const auto again = open();
    handle(100); // of what has ended
    EXPECT_EQ(send(10), 10);
    EXPECT_EQ(again->values.size(), FIT) << "it has a window of its own";
}

TEST_F(BackendWindows, WhatWaitsIsDroppedByWhoeverEndsTheStream)
{
    auto stream = open();
    send(50);
    client->cancel(*stream);
    settle();
    EXPECT_EQ(service.cancels(), 1U);
    EXPECT_TRUE(isNothingLeft());

    stream = open();
    send(50);
    handler->onCompleted();
    settle();
    client->cancel(*stream);
    settle();
    EXPECT_EQ(service.cancels(), 1U) << "it had ended there";
    EXPECT_TRUE(isNothingLeft());
}

TEST_F(BackendWindows, PoliciesDecideAboutWhatWaits)
{
    const auto about = AllOf(Ge(static_cast<int>(SEND_QUEUE / (VALUE_BYTES + 50))),
                             Le(static_cast<int>((SEND_QUEUE + WINDOW) / VALUE_BYTES + 1)));
    const auto cut = open();
    EXPECT_THAT(send(1000), about);
    EXPECT_EQ(cut->errorText, "too slow");
    EXPECT_LE(cut->values.size(), FIT);
    receipts.clear();

    const auto latest = open(QueuePolicy::eKEEP_LATEST);
    EXPECT_EQ(send(1000), 1000);
    while (!receipts.empty()) {
        handle(100);
    }
    EXPECT_THAT(static_cast<int>(latest->values.size()), about);
    EXPECT_EQ(latest->values.back(), numbered(999));
    client->cancel(*latest);

    const auto connection = open(QueuePolicy::eCUT_CONNECTION);
    EXPECT_EQ(send(1000), 1000);
    runFor(10'000); // its user is behind, and its process lives
    EXPECT_FALSE(connection->hasEnded());
    while (!receipts.empty()) {
        handle(100);
    }
    EXPECT_EQ(connection->values.size(), 1000U);
}

TEST_F(BackendWindows, OfAPeerThatDoesNotKeepToThemTheConnectionEnds)
{
    CarelessPeer asker(*network, Role::eCLIENT);
    asker.connect(locator);
    settle();
    auto& says = asker.machine().output;
    ASSERT_EQ(says.attach(1, "/service"), protocol::Sent::eQUEUED);
    ASSERT_EQ(says.request(1, 1, persistent()), protocol::Sent::eQUEUED);
    says.credit(7, 100); // of a stream that may have ended
    asker.send();
    settle();
    EXPECT_EQ(service.open(), 1U);
    EXPECT_FALSE(service.handlers().back()->onNext(value("x")));
    settle();
    says.credit(1, 10);
    asker.send();
    settle();
    EXPECT_EQ(service.open(), 1U);
    says.credit(1, 12);
    asker.send();
    settle();
    EXPECT_EQ(service.open(), 0U);
    EXPECT_THAT(traces->take(), Contains(HasSubstr("is cut off: more credit than a stream has used")));

    CarelessPeer careless(*network, Role::eSERVER);
    careless.listen("careless");
    Client client2(*clientBackend, "ipc://careless/service");
    settle();
    careless.machine().output.attached(1);
    careless.send();
    settle();
    const auto stream = client2.request(persistent());
    stream->onValue = [this] { receipts.push_back(Receipt::take()); };
    settle();
    for (std::size_t i = 0; i <= FIT; ++i) {
        ASSERT_EQ(careless.machine().output.next(1, value(numbered(0))), protocol::Sent::eQUEUED);
    }
    careless.send();
    settle();
    EXPECT_EQ(stream->values.size(), FIT);
    EXPECT_THAT(stream->errorText, HasSubstr("it sends more values than it has credit for"));
}

} // namespace
} // namespace kesa::commadapter::test
