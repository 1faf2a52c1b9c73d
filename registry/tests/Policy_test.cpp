// The compiled policy beside a plain reading of its rules, and what it says of itself.
#include "policy/Policy.h"
#include "policy/readPolicyRules.h"

#include <rules/findMisnamedTable.h>
#include <util/config/JSONParser.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace kesa::registry::test {
namespace {

using testing::HasSubstr;
using util::config::Complaint;
using util::config::Value;

constexpr std::int64_t OWN = 500;

/// Users 1001 media and 1002 nav, both in the group 29 audio.
class FewAccounts final : public access::IAccounts {
    std::optional<std::int64_t> findUser(const std::string& name) const override
    {
        if (name == "media" || name == "1001") {
            return 1001;
        }
        return name == "nav" || name == "1002" ? std::optional<std::int64_t>(1002) : std::nullopt;
    }
    std::optional<std::int64_t> findGroup(const std::string& name) const override
    {
        return name == "audio" ? std::optional<std::int64_t>(29) : std::nullopt;
    }
    std::vector<std::int64_t> membersOf(std::int64_t) const override { return {1001, 1002}; }
    std::int64_t groupOf(std::int64_t) const override { return 100; }
    std::string userName(std::int64_t user) const override { return user == 1001 ? "media" : std::to_string(user); }
};
const FewAccounts ACCOUNTS;

std::vector<access::Rule> read(const std::string& json, std::vector<std::string>& complaints)
{
    Value policy;
    EXPECT_FALSE(util::config::JSONParser().parseString(json, policy));
    std::vector<Complaint> found;
    std::vector<access::Rule> rules = readPolicyRules(policy, {"registry", "policy"}, ACCOUNTS, found);
    for (const Complaint& complaint : found) {
        complaints.push_back(util::config::toText(complaint.path) + ": " + complaint.words());
    }
    return rules;
}

Policy policyOf(const std::string& json)
{
    std::vector<std::string> complaints;
    std::vector<access::Rule> rules = read(json, complaints);
    EXPECT_THAT(complaints, testing::IsEmpty());
    for (access::Rule& rule : rules) {
        rule.place = "kesa.json:10";
    }
    return {OWN, std::move(rules), "kesa.json", ACCOUNTS};
}

Record recordOf(const std::string& path, std::int64_t uid, bool isPublic = false)
{
    Record record{serviceregistry::ServiceDef(Path(path), serviceregistry::ServiceDef::TypeEnum::pex, {}, {})};
    record.uid = uid;
    if (isPublic) {
        record.serviceDef.metainfo = GenericObject{{"public", true}};
    }
    return record;
}

TEST(PolicyTest, WithoutRulesEachUserHasHisOwn)
{
    Policy policy(OWN);
    EXPECT_EQ(policy.permitOf({0, 0, ""}), nullptr);
    EXPECT_EQ(policy.permitOf({OWN, 0, ""}), nullptr);
    const PermitPtr media = policy.permitOf({1001, 100, "player"});
    EXPECT_EQ(media, policy.permitOf({1001, 100, "radio"})); // they share what is judged
    EXPECT_TRUE(media->mayRegister("/a"));
    EXPECT_TRUE(media->sees(recordOf("/a", 1001)));
    EXPECT_TRUE(media->sees(recordOf("/a", 0)));
    EXPECT_TRUE(media->sees(recordOf("/a", OWN)));
    EXPECT_TRUE(media->sees(recordOf("/a", 1002, true)));
    EXPECT_FALSE(media->sees(recordOf("/a", 1002)));
    EXPECT_TRUE(media->sees(recordOf("/registry", -1)));
}

/// Where the document has rules that were perhaps meant for `place`.
std::string misnamed(const std::string& json, const util::config::DocumentPath& place, const access::RuleForm& form)
{
    Value root;
    EXPECT_FALSE(util::config::JSONParser().parseString(json, root)) << json;
    const auto complaint = access::findMisnamedTable(root, place, form);
    if (complaint) {
        EXPECT_EQ(complaint->words(),
                  "has rules, which nobody reads here; did you mean '" + util::config::toText(place) + "'?");
    }
    return complaint ? util::config::toText(complaint->path) : "";
}

TEST(PolicyTest, RulesUnderAnotherKeyAreKnownByWhatTheyAre)
{
    const std::string seeing = R"({"user": "media", "may": ["register", "see"], "paths": ["/media/**"]})";
    const std::string asking = R"({"group": "audio", "may": "update", "paths": "/media/**"})";
    struct Case {
        std::string document;
        std::string policy; ///< what may be meant
        std::string access;
    };
    const std::vector<Case> cases = {
        {R"({"policies": [)" + seeing + "]}", "policies", ""},
        {R"({"registry": {"rules": [)" + seeing + "]}}", "registry.rules", ""},
        {R"({"registries": {"policy": [)" + seeing + "]}}", "registries.policy", ""},
        {R"({"registry": [)" + seeing + "]}", "registry", ""},
        {R"({"policy": )" + seeing + "}", "policy", ""},
        {R"({"permissions": [7, )" + asking + "]}", "", "permissions"},
        {R"({"registry": {"access": [)" + asking + "]}}", "", "registry.access"},
        {R"({"x": [{"may": "*", "paths": "**"}]})", "", "x"},
        {R"({"x": [{"may": ["see", "play"], "resources": "/volume"}]})", "", "x"},
        {R"({"x": [{"may": "play", "paths": "/a"}]})", "x", "x"}, // nobody knows which
        {R"({"registry": {"policy": []}, "x": [)" + seeing + "]}", "", ""},
        {R"({"access": [)" + asking + R"(], "registry": {"policy": [)" + seeing + "]}}", "", ""},
        {R"({"success": ["/a"], "acess": 7, "register": {"max": 1}, "polcy": [], "rules": [{}]})", "", ""},
        {R"({"registry": {"polcy": [{"usr": "media", "maay": ["se"], "pth": "/a"}]}})", "registry.polcy", ""},
        {R"({"x": [{"usr": "media", "maay": ["see"], "pth": ["/a"]}], "acess": {"y": 1}})", "x", "acess"},
        {R"({"services": [{"path": "/a", "type": "pex"}], "x": {"y": [{"maay": "update", "pth": "**"}]}})", "", "x.y"},
        {R"({"mounts": [{"user": "media", "paths": ["/a"]}], "month": {"may": 31}})", "", ""},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(misnamed(each.document, {"registry", "policy"}, access::policyForm()), each.policy) << each.document;
        EXPECT_EQ(misnamed(each.document, {"access"}, access::accessForm()), each.access) << each.document;
    }
}

TEST(PolicyTest, TellsByWhichRuleAndWhatIsMissing)
{
    Policy policy = policyOf(R"([{"user": "media", "may": ["register", "see"], "paths": ["/media/**"]},
                                 {"group": "audio", "process": "mix*", "may": "see", "paths": "/nav/*"}])");
    const access::Identity media{1001, 100, ""};
    EXPECT_THAT(policy.judge(media, Right::eREGISTER, "/media/a").because,
                "rule 1 (kesa.json:10): user media may register and see /media/**");
    EXPECT_THAT(policy.judge(media, Right::eREGISTER, "/nav/a").because,
                "no rule of the policy in kesa.json lets user media (uid 1001) register \"/nav/a\": rule 1 "
                "(kesa.json:10) is for other paths");
    EXPECT_TRUE(policy.judge({1001, 100, "mixer"}, Right::eSEE, "/nav/a").isAllowed);
    EXPECT_THAT(policy.judge({1001, 100, "radio"}, Right::eSEE, "/nav/a").because,
                testing::EndsWith("is for other paths; rule 2 (kesa.json:10) is for other processes"));
    EXPECT_THAT(
        policy.judge(media, Right::eSEE, "/nav/a").because,
        testing::EndsWith("rule 2 (kesa.json:10) is for processes by their proven names, and who provides nothing "
                          "has none"))
        << "the name is not proven";
    EXPECT_THAT(policy.judge({1002, 100, "nav"}, Right::eREGISTER, "/nav/a").because,
                "no rule of the policy in kesa.json lets user 1002, process nav register \"/nav/a\": none lets him "
                "register anything");
    const Record own = recordOf("/nav/a", 1001);
    EXPECT_EQ(policy.judge(media, Right::eSEE, "/nav/a", &own).because, "his own user provides it");
}

TEST(PolicyTest, ComplainsOfRulesThatSayNothingOrTooMuch)
{
    std::vector<std::string> complaints;
    read(R"([{"user": "nobdy", "may": ["registr"], "paths": ["media", "/a["]}, {"usr": 1, "may": []}, 7,
             {"user": "*", "may": ["see", "retrieve", "call"], "paths": "**"}])",
         complaints);
    EXPECT_THAT(
        complaints,
        testing::ElementsAre(
            HasSubstr("[0].user: there is no user \"nobdy\" on this machine; correct the name"),
            HasSubstr("[0].may[0]: unknown right \"registr\"; did you mean \"register\"?"),
            HasSubstr("[0].paths[0]: \"media\" fits no path of a service; begin it with '/'"),
            HasSubstr("[0].paths[1]: malformed glob: "), HasSubstr("[1].usr: unknown key 'usr' of a rule"),
            HasSubstr("[1].may: the list is empty"), HasSubstr("[1]: the rule does not say for which paths"),
            HasSubstr("[2]: expected a rule, an object, found the number 7; write one such as "),
            HasSubstr("[3].user: there is no user \"*\"; leave \"user\" out for everybody"),
            HasSubstr("[3].may[1]: \"retrieve\" is no right of \"registry\", \"policy\"; what may be asked of a "
                      "service is said in \"access\""),
            HasSubstr("[3].may[2]: unknown right \"call\"; known are \"register\" and \"see\"; what may be asked")));
    complaints.clear();
    read(R"([{"may": "see", "paths": "**"}])", complaints);
    EXPECT_THAT(complaints, testing::ElementsAre(HasSubstr("no rule lets anybody register")));
}

/// Random tables: the tries against each rule in turn.
TEST(PolicyTest, JudgesAsTheRulesReadOneByOne)
{
    std::mt19937 random(7);
    const auto pick = [&](const auto& list) { return list[random() % list.size()]; };
    const std::vector<std::string> who = {R"("user": 1001)",
                                          R"("user": ["nav", "media"])",
                                          R"("group": "audio")",
                                          R"("process": "mix*")",
                                          R"("user": "nav", "process": ["a", "b"])",
                                          ""};
    const std::vector<std::string> globs = {"**", "/a/**", "/a/*", "/a/b", "/{a,b}/c", "/?", "/a*", "/**/c"};
    const std::vector<std::string> rights = {R"(["register"])", R"(["see"])", R"(["see", "register"])"};
    const std::vector<std::string> paths = {"/a", "/a/b", "/a/c", "/b/c", "/b", "/ab", "/a/b/c", "/x/y/c"};
    const std::vector<access::Identity> identities = {{1001, 100, ""}, {1001, 29, "mixer"}, {1002, 100, "a"},
                                                      {1003, 29, "b"}, {1003, 100, "mix"},  {-1, -1, ""}};
    for (int table = 0; table < 300; ++table) {
        std::string json;
        for (std::size_t count = random() % 6; count > 0; --count) {
            const std::string subject = pick(who);
            json += std::string(json.empty() ? "" : ",") + "{" + subject + (subject.empty() ? "" : ",") +
                    "\"may\":" + pick(rights) + ",\"paths\":[\"" + pick(globs) + "\",\"" + pick(globs) + "\"]}";
        }
        std::vector<std::string> complaints;
        const std::vector<access::Rule> rules = read("[" + json + "]", complaints);
        Policy policy(OWN, rules, "f", ACCOUNTS);
        for (const access::Identity& identity : identities) {
            for (const std::string& path : paths) {
                for (const Right right : {Right::eREGISTER, Right::eSEE}) {
                    const bool isAllowed = std::any_of(rules.begin(), rules.end(), [&](const access::Rule& rule) {
                        return rule.fits(identity) && rule.lets(nameOf(right)) &&
                               std::any_of(rule.paths.begin(), rule.paths.end(),
                                           [&](const access::Rule::Glob& glob) { return glob.second.match(path); });
                    });
                    EXPECT_EQ(policy.judge(identity, right, path).isAllowed, isAllowed)
                        << json << ' ' << path << ' ' << identity.uid << ' ' << identity.process;
                    const Record record = recordOf(path, 77);
                    const PermitPtr permit = policy.permitOf(identity);
                    EXPECT_EQ(right == Right::eSEE ? permit->sees(record) : permit->mayRegister(path), isAllowed);
                }
            }
        }
    }
}

} // namespace
} // namespace kesa::registry::test
