// The compiled table beside a plain reading of its rules, and what is wrong with rules.
#include "gates/Table.h"
#include "refusals/RefusalTraces.h"
#include "rules/readRules.h"

#include <util/config/JSONParser.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace kesa::access::test {
namespace {

using testing::HasSubstr;

class NoAccounts final : public IAccounts {
    std::optional<std::int64_t> findUser(const std::string& name) const override { return std::stoll(name); }
    std::optional<std::int64_t> findGroup(const std::string& name) const override { return std::stoll(name); }
    std::vector<std::int64_t> membersOf(std::int64_t) const override { return {}; }
    std::int64_t groupOf(std::int64_t) const override { return -1; }
    std::string userName(std::int64_t user) const override { return std::to_string(user); }
};
const NoAccounts ACCOUNTS;

std::vector<Rule> read(const std::string& json, std::vector<std::string>& complaints)
{
    util::config::Value list;
    EXPECT_FALSE(util::config::JSONParser().parseString(json, list));
    std::vector<util::config::Complaint> found;
    std::vector<Rule> rules = readRules(list, {"access"}, accessForm(), ACCOUNTS, found);
    for (const auto& complaint : found) {
        if (complaint.severity != util::config::Complaint::Severity::eHINT) {
            complaints.push_back(util::config::toText(complaint.path) + ": " + complaint.words());
        }
    }
    return rules;
}

TEST(TableTest, ComplainsOfWhatIsNoRule)
{
    std::vector<std::string> complaints;
    read(
        R"([{"may": ["updat", "explain", "see"], "paths": "/a", "resources": "volume"}, {"may": "*", "resource": "/"}])",
        complaints);
    EXPECT_THAT(complaints, testing::ElementsAre(
                                HasSubstr("[0].may[0]: unknown command \"updat\"; did you mean \"update\"?"),
                                HasSubstr("[0].may[2]: \"see\" is no command of \"access\"; who may register and see a "
                                          "service is said in \"registry\""),
                                HasSubstr("[0].resources: \"volume\" fits no resource"),
                                HasSubstr("[1].resource: unknown key 'resource' of a rule; did you mean 'resources'?"),
                                HasSubstr("[1]: the rule does not say for which paths")));
}

TEST(TableTest, JudgesAsTheRulesReadOneByOne)
{
    std::mt19937 random(3);
    const auto pick = [&](const auto& list) { return list[random() % list.size()]; };
    const std::vector<std::string> who = {R"("user": 1001,)", R"("group": [29, 30],)", R"("process": "mix*",)", ""};
    const std::vector<std::string> may = {R"("*")", R"("update")", R"(["retrieve", "explain"])"};
    const std::vector<std::string> paths = {R"("/a")", R"("/b/**")", R"(["/{a,c}", "/b"])"};
    const std::vector<std::string> inside = {"", R"(, "resources": "/volume")", R"(, "resources": ["/", "/t/*"])",
                                             R"(, "resources": "**")"};
    const std::vector<std::string> asked = {"", "/", "/volume", "volume/", "/t/1", "/t/../volume", "//volume"};
    const std::vector<Identity> identities = {{0, 0, ""},          {500, 1, ""},     {1001, 1, ""},
                                              {1002, 29, "mixer"}, {1003, 1, "mix"}, {-1, -1, ""}};
    for (int round = 0; round < 300; ++round) {
        std::string json;
        for (std::size_t count = random() % 5; count > 0; --count) {
            json += std::string(json.empty() ? "" : ",") + "{" + pick(who) + "\"may\":" + pick(may) +
                    ",\"paths\":" + pick(paths) + pick(inside) + "}";
        }
        std::vector<std::string> complaints;
        const std::vector<Rule> rules = read("[" + json + "]", complaints);
        ASSERT_THAT(complaints, testing::IsEmpty());
        Table table(500, rules, "t", ACCOUNTS);
        for (const Identity& identity : identities) {
            for (const std::string service : {"/a", "/b", "/b/x", "/c", "/d"}) {
                for (const std::string command : {"retrieve", "update", "explain", "delete"}) {
                    for (const std::string& resource : asked) {
                        const std::string inner = resourcePath(resource);
                        bool isClosed = false;
                        bool isLet = identity.uid == 0 || identity.uid == 500;
                        for (const Rule& rule : rules) {
                            const auto matches = [](const std::vector<Rule::Glob>& globs, const std::string& path) {
                                return std::any_of(globs.begin(), globs.end(),
                                                   [&](const Rule::Glob& glob) { return glob.second.match(path); });
                            };
                            if (matches(rule.paths, service)) {
                                isClosed = true;
                                isLet =
                                    isLet ||
                                    (rule.fits(identity) && rule.lets(command) &&
                                     (rule.resources.empty() || (!inner.empty() && matches(rule.resources, inner))));
                            }
                        }
                        const GatePtr gate = table.gateOf(identity, service);
                        EXPECT_EQ(!gate || gate->lets(command, resource), !isClosed || isLet) << json << resource;
                        EXPECT_EQ(table.judge(identity, {service, command, resource, ""}).isAllowed, !isClosed || isLet)
                            << json << ' ' << service << ' ' << command << ' ' << resource;
                    }
                }
            }
        }
    }
}

TEST(TableTest, ARefusalNamesWhoAsksAndWhichRulesThereAre)
{
    std::vector<std::string> complaints;
    std::vector<Rule> rules = read(R"([{"may": "retrieve", "paths": "/a"}, {"user": 7, "may": "*", "paths": "/**"},
                                       {"process": "nav", "may": "update", "paths": "/a"}])",
                                   complaints);
    rules[0].place = "kesa.json:4";
    Table table(500, rules, "\"access\"", ACCOUNTS);
    const Identity identity{1001, 1, ""};
    EXPECT_EQ(table.gateOf(identity, "/a"), table.gateOf({1002, 1, ""}, "/a")) << "who may the same shares it";
    for (const std::string resource : {"/volume", "/title"}) { // once looked up, then known
        EXPECT_EQ(table.whyRefused(identity, {"/a", "update", resource, "nav"}),
                  "no rule of \"access\" lets user 1001 update \"" + resource +
                      "\" of \"/a\": rule 1 (kesa.json:4) is for other commands or resources; rule 3 is for "
                      "processes by their proven names, and who provides nothing has none; that it is process nav is "
                      "not proven");
    }
    EXPECT_EQ(table.whyRefused({1002, 1, ""}, {"/b", "update", {}, ""}),
              "no rule of \"access\" lets user 1002 update \"/b\": rule 2 is for others");
    EXPECT_THAT(table.judge({1001, 1, "nav"}, {"/a", "update", "/title", ""}).because,
                HasSubstr("rule 3: process nav may update"));
}

TEST(TableTest, RulesThatFitNoServiceAreSaidOnceWithTheServicesThatAreOpen)
{
    std::vector<std::string> complaints;
    Table table(
        500,
        read(
            R"([{"may": "*", "paths": "/a/volume"}, {"may": "*", "paths": ["/x", "/b"]}, {"may": "*", "paths": "/c"}])",
            complaints),
        "t", ACCOUNTS);
    EXPECT_TRUE(table.noteService("/a"));
    EXPECT_TRUE(table.noteService("/b"));
    EXPECT_TRUE(table.noteService("/d"));
    EXPECT_THAT(table.takeIdleRules(),
                testing::AllOf(HasSubstr("rule 1, rule 3 of t fit no service that this process provides so far"),
                               testing::EndsWith("; at no rule, and so open to everybody: /a, /d")));
    EXPECT_FALSE(table.noteService("/e"));
    EXPECT_EQ(table.takeIdleRules(), "");
}

TEST(TableTest, RefusalsAreTracedOnceForAProcessAndOnceASecondForAUser)
{
    RefusalTraces traces;
    EXPECT_EQ(traces.pass(1001, 1, 1, 0), "");
    EXPECT_EQ(traces.pass(1001, 1, 1, 5 * comm::SECOND), std::nullopt) << "that process has its line";
    for (int pid = 2; pid < 100; ++pid) {
        EXPECT_EQ(traces.pass(1001, pid, 1, comm::SECOND / 2), std::nullopt);
    }
    EXPECT_EQ(traces.pass(1002, 100, 1, comm::SECOND / 2), "") << "another user";
    EXPECT_EQ(traces.pass(1001, 2, 1, comm::SECOND), "; and 98 more since the last such line");
    EXPECT_EQ(traces.pass(1001, 1, 2, 2 * comm::SECOND), "") << "its number is another's now";
}

TEST(TableTest, WithoutATableThatCanBeReadAllIsClosedButWhatProcessesAreFoundBy)
{
    Table table(500, "kesa.json:3: it is wrong", ACCOUNTS);
    EXPECT_EQ(table.gateOf({500, 1, ""}, "/a"), nullptr);
    EXPECT_EQ(table.gateOf({1001, 1, ""}, "/registry"), nullptr);
    ASSERT_NE(table.gateOf({1001, 1, ""}, "/a"), nullptr);
    EXPECT_FALSE(table.gateOf({1001, 1, ""}, "/a")->lets("retrieve", "/"));
    EXPECT_THAT(table.judge({1001, 1, ""}, {"/a", "retrieve", {}, ""}).because, HasSubstr("kesa.json:3: it is wrong"));
}

} // namespace
} // namespace kesa::access::test
