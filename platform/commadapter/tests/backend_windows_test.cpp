// Windows of persistent streams, and peers that do not keep to them. What waits for credit, comes in order and meets
// ends is the feeds' of the simulation.

#include "CarelessPeer.h"

#include <kesa/Receipt.h>

#include <deque>

namespace kesa::commadapter::test {
namespace {

using protocol::Role;
using testing::Contains;
using testing::HasSubstr;

constexpr std::size_t WINDOW = 4096;
constexpr std::size_t FIT = 5; // values; the last one begins before the window is used up

class BackendWindows : public SimulatedStreams {
protected:
    BackendWindows()
    {
        settings.streamWindow = WINDOW;
        begin();
    }
};

TEST_F(BackendWindows, AStreamThatIsCancelledAfterItsEndLeavesNothing)
{
    const auto stream = client->request(persistent());
    std::deque<Receipt> receipts;
    stream->onValue = [&receipts] { receipts.push_back(Receipt::take()); };
    settle();
    const auto handler = service.handlers().back();
    EXPECT_EQ(flood(*handler, 50), 50);
    handler->onCompleted();
    settle();
    EXPECT_EQ(stream->values.size(), FIT) << "credit comes for half a window at least";
    client->cancel(*stream);
    settle();
    for (const auto& each : {server->describe(), clientBackend->describe()}) {
        EXPECT_THAT(each, HasSubstr(R"("openRequests":0,"queuedBytes":0)"));
    }
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
    std::deque<Receipt> receipts;
    stream->onValue = [&receipts] { receipts.push_back(Receipt::take()); };
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
