// Who is let in to a service by the table of its process, and what the others are told.
#include "backend/ProcessService.h"
#include "backend_support.h"

namespace kesa::commadapter::test {
namespace {

using testing::HasSubstr;

/// A server (group 1) with a table, a client of it (group 2) that is of another user.
class BackendAccess : public SimulatedPair {
protected:
    void begin(const std::string& rules)
    {
        setRules(rules);
        network->setUser(2, 65533);
        SimulatedPair::begin();
    }
    Outcome ask(const std::string& command, const std::string& path)
    {
        const auto outcome = client->request(Request(command, path));
        settle();
        return *outcome;
    }
};

TEST_F(BackendAccess, OthersMayWhatARuleLetsThemAndARefusalEndsNothingElse)
{
    begin(R"([{"user": 65532, "may": "*", "paths": ["/**"]},
              {"user": 65533, "may": ["retrieve"], "paths": ["/service"], "resources": ["/echo", "/stream"]}])");
    EXPECT_EQ(ask("retrieve", "/echo").status, 0);
    const auto stream = client->request(persistent());
    const Outcome refused = ask("update", "/echo");
    EXPECT_EQ(refused.status, 403);
    EXPECT_EQ(refused.reason, "no rule of the table lets user 65533 update \"/echo\" of \"/service\": rule 2 is for "
                              "other commands or resources");
    const std::vector<std::string> others = {"/echo/../secret", "/secret", "//echo", "echo/secret"};
    for (int flood = 0; flood < 400; ++flood) {
        EXPECT_EQ(ask("retrieve", others[static_cast<std::size_t>(flood) % others.size()]).status, 403);
    }
    EXPECT_TRUE(client->isConnected());
    EXPECT_FALSE(stream->isOver());
    EXPECT_EQ(ask("retrieve", "/echo").status, 0);
    EXPECT_THAT(traces->take(), testing::ElementsAre(HasSubstr("is refused: no rule of the table lets user 65533")));
}

TEST_F(BackendAccess, AServiceOfNoRuleIsOpen)
{
    begin(R"([{"user": 65532, "may": "*", "paths": ["/service/echo"]}])");
    EXPECT_EQ(ask("retrieve", "/echo").status, 0);
    EXPECT_THAT(traces->take(), testing::IsEmpty()) << "more services may come";
    runFor(1000);
    EXPECT_THAT(traces->take(), testing::ElementsAre(HasSubstr("rule 1 of the table fits no service")));
}

TEST_F(BackendAccess, EachMayAskWhatHeMay)
{
    begin(R"([{"user": 65533, "may": ["retrieve"], "paths": ["/service"]}])");
    const std::string own = locator.substr(0, locator.rfind('/')) + std::string(ProcessService::PATH);
    const auto process = connect(own);
    settle();
    const auto may = [&](const std::string& body) {
        const auto outcome = process->request(retrieve("/may", body));
        settle();
        return outcome->status == 0 ? outcome->values.at(0) : std::to_string(outcome->status);
    };
    const std::string himself = may(R"({"who":"65533","path":"/service","command":"update","resource":"/echo"})");
    EXPECT_THAT(himself,
                HasSubstr(R"("allowed":false,"because":"no rule of the table lets user 65533 update \"/echo\")"));
    EXPECT_THAT(may(R"({"who":"client","path":"/service","command":"retrieve"})"), HasSubstr(R"("allowed":true)"));
    for (const char* const who : {"65532", "root", "server"}) {
        EXPECT_EQ(may(std::string(R"({"who":")") + who + R"(","path":"/service","command":"update"})"), "403");
    }
    EXPECT_EQ(may(R"({"who":"65533","path":"no path","command":"update"})"), "400");
    EXPECT_EQ(may(R"({"who":"65533","path":"/not/provided","command":"update"})"), "404");
    EXPECT_EQ(may("[7]"), "400");
    EXPECT_EQ(may('[' + std::string(10'000, ' ') + ']'), "413") << "read before it is known who asks";
}

} // namespace
} // namespace kesa::commadapter::test
