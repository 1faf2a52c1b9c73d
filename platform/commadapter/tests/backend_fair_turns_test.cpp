// Whose requests are handled when there are more than the loop has time for.

#include "backend/connection/FairTurns.h"
#include "backend_support.h"

namespace kesa::commadapter::test {
namespace {

constexpr std::size_t GREEDY = 50;
constexpr comm::TimeNs COST = comm::MILLISECOND / 10;

class BackendFairTurns : public SimulatedPair {
protected:
    BackendFairTurns()
    {
        begin();
        service.onRequest = [](const Request&) { workFor(COST); };
        network->setUser(lastGroup, 1000); // the client's
        for (std::size_t i = 0; i < GREEDY; ++i) {
            m_backends.push_back(makeBackend("greedy" + std::to_string(i)));
            network->setUser(lastGroup, 1001);
            greedy.push_back(std::make_unique<Client>(*m_backends.back(), locator));
        }
        settle();
        client = connect(locator);
        settle();
    }
    ~BackendFairTurns() override { greedy.clear(); }

    /// Each of the greedy keeps so many requests under way while `by` asks twenty times; answers how long it waited at
    /// most.
    comm::TimeNs longestWait(Client& by, std::size_t each)
    {
        bool isOver = false;
        std::vector<std::unique_ptr<Asker>> askers;
        for (const auto& one : greedy) {
            for (std::size_t i = 0; i < each; ++i) {
                askers.push_back(std::make_unique<Asker>(*one, [&isOver] { return !isOver; }));
            }
        }
        std::unique_ptr<Asker> calm;
        calm = std::make_unique<Asker>(by, [&] {
            if (calm->answers < 5) {
                calm->longest = 0; // nobody knows yet who asks little
            }
            isOver = calm->answers == 20;
            return !isOver;
        });
        runFor(1000);
        EXPECT_EQ(calm->answers, 20U);
        return calm->longest;
    }

    std::vector<std::unique_ptr<Client>> greedy;

private:
    std::vector<std::unique_ptr<IBackend>> m_backends;
};

TEST_F(BackendFairTurns, UsersTakeTurnsWhateverNumberOfConnectionsEachHas)
{
    EXPECT_LT(longestWait(*client, 1), 4 * FairTurns::ROUND) << "in one line it would be GREEDY * COST";
    EXPECT_LT(longestWait(*client, 20), 4 * FairTurns::ROUND);
}

TEST_F(BackendFairTurns, WhoAsksLittleWaitsForNoneOfHisUsersThatAskWithoutAPause)
{
    auto calm = makeBackend("calm");
    network->setUser(lastGroup, 1001);
    Client besides(*calm, locator);
    settle();
    EXPECT_LT(longestWait(besides, 20), 4 * FairTurns::ROUND);
}

} // namespace
} // namespace kesa::commadapter::test
