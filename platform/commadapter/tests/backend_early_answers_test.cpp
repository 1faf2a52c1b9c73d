// A server that answers a request of which it cannot have read all: the client ends the connection, and keeps its head.

#include "CarelessPeer.h"

namespace kesa::commadapter::test {
namespace {

using protocol::Role;
using protocol::Sent;

enum class Answer { eNEXT, eERROR, eCOMPLETED };
constexpr std::uint32_t SENT = 1;
constexpr std::uint32_t BEGUN = 2;
constexpr std::uint32_t QUEUED = 3;

class BackendEarlyAnswers : public SimulatedBackends,
                            public testing::WithParamInterface<std::tuple<Answer, std::uint32_t>> {
protected:
    BackendEarlyAnswers()
    {
        faults.pipeBytes = 4096;
        network->setFaults(faults);
        server = std::make_unique<CarelessPeer>(*network, Role::eSERVER);
        server->listen("careless");
        backend = makeBackend("client");
        client = std::make_unique<Client>(*backend, "ipc://careless/service");
        settle();
        server->machine().output.attached(1);
        server->send();
        settle();
        server->setReading(false);
        settle();
        for (const std::size_t size : {10U, 8192U, 10U}) {
            requests.push_back(client->request(retrieve("/x", std::string(size, 'x'))));
        }
        settle();
    }
    void answer(Answer kind)
    {
        if (kind == Answer::eNEXT) {
            ASSERT_EQ(server->machine().output.next(stream, value("x")), Sent::eQUEUED);
        } else if (kind == Answer::eERROR) {
            server->machine().output.error(stream, Response::createErrorResponse(409, "taken"));
        } else {
            server->machine().output.completed(stream);
        }
    }
    Outcome& of(std::uint32_t number) { return *requests[number - 1]; }

    const Answer with = std::get<0>(GetParam());
    const std::uint32_t stream = std::get<1>(GetParam());
    std::unique_ptr<CarelessPeer> server;
    std::unique_ptr<IBackend> backend;
    std::unique_ptr<Client> client;
    Outcomes requests;
};

INSTANTIATE_TEST_SUITE_P(All, BackendEarlyAnswers,
                         testing::Combine(testing::Values(Answer::eNEXT, Answer::eERROR, Answer::eCOMPLETED),
                                          testing::Values(SENT, BEGUN, QUEUED)));

TEST_P(BackendEarlyAnswers, EndTheConnectionAndTouchNoHandler)
{
    const bool isLate = stream == SENT;
    of(stream).onValue = [this] { client->cancel(of(stream)); };
    answer(with);
    answer(Answer::eNEXT);
    server->send();
    settle();
    EXPECT_EQ(client->isConnected(), isLate);
    EXPECT_EQ(of(stream).values.size(), isLate && with == Answer::eNEXT ? 1U : 0U);
    EXPECT_TRUE(of(stream).isDestroyed);
    for (const std::uint32_t open : {BEGUN, QUEUED}) {
        EXPECT_EQ(of(open).errorText, isLate ? "" : "the connection was lost: answer to a request that was not sent");
    }
}

// The number must not become free before the rest of the request has left.
TEST_P(BackendEarlyAnswers, EndTheConnectionAlsoWhenTheRequestWasCancelled)
{
    client->cancel(of(stream));
    answer(with);
    server->send();
    settle();
    EXPECT_EQ(client->isConnected(), stream != BEGUN) << "what was queued was taken back, and is nobody's";
}

} // namespace
} // namespace kesa::commadapter::test
