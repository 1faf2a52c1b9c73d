// Who may ask what of a provider, between real processes of three users: every command on resources that the rules have
// and have not, by the document of the provider and by its code, and what kesactl says without trying.

#include "SystemTest.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <map>

namespace kesa::system_test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr uid_t PROVIDER = STRANGER;
constexpr uid_t OTHER = NOBODY;

/// In the lines 3 to 6 of the document.
constexpr const char* ACCESS = R"([
  {                   "may": ["retrieve"],         "paths": ["/media/player"], "resources": ["/echo"] },
  { "user": 65534,    "may": ["update", "delete"], "paths": "/media/**",       "resources": ["/echo", "/volume/*"] },
  { "process": "car", "may": "*",                  "paths": "/media/player" },
  { "user": 12345,    "may": "*",                  "paths": "/closed" }])";

/// A request, and whether processes of the other user may make it: any one, and "car", which has proven its name.
struct Question {
    std::string path;
    std::string command;
    std::string resource;
    bool mayOther;
    bool mayCar;
    std::string because = {}; ///< what the other one is told, in part
};

const std::vector<Question> QUESTIONS = {
    {"/media/player", "retrieve", "/echo", true, true},
    {"/media/player", "retrieve", "/echo/", true, true},
    {"/media/player", "update", "/echo", true, true},
    {"/media/player", "delete", "/echo", true, true},
    {"/media/player", "insert", "/echo", false, true, R"(insert "/echo" of "/media/player": rule 1 ()"},
    {"/media/player", "explain", "/echo", false, true, R"(explain "/echo" of "/media/player": rule 1 ()"},
    {"/media/player", "retrieve", "/feed", false, true, ":4) are for other commands or resources"},
    {"/media/player", "update", "/volume/1", true, true},
    {"/media/player", "update", "/volume/1/2", false, true},
    {"/media/player", "update", "/volume/../echo", false, true},
    {"/media/player", "update", "//echo", false, true},
    {"/media/radio", "update", "/echo", true, true},
    {"/media/radio", "retrieve", "/echo", false, false, ":4) is for other commands or resources"},
    {"/closed", "retrieve", "/echo", false, false, ":6) is for others"},
    {"/other", "insert", "/feed", true, true},
};

class SystemAccess : public SystemTest {
protected:
    void SetUp() override
    {
        if (const std::string why = whyNoOtherUsers(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        launchRegistry(of(0)).expect("kesa-registryd: ready at ipc://kesa-registryd/registry");
        std::filesystem::permissions(runDirectory(), std::filesystem::perms(01777));
    }

    static Options of(uid_t user, const std::string& access = {})
    {
        return {.comm = R"({"socket_mode": "0666"})", .access = access, .user = user, .hasRegistry = true};
    }
    void provide(Process& provider, const std::string& path)
    {
        provider.send("provide " + path + " 1 public=true");
        provider.expect("provided " + path);
    }
    Process& startAsker(const std::string& name, uid_t user, const std::vector<std::string>& paths)
    {
        Process& asker = start(name, of(user));
        for (const std::string& path : paths) {
            asker.send("resolve " + path);
            asker.expect("connected " + path);
        }
        return asker;
    }
    /// What it is answered: the beginning of a value, or status and text of an error.
    std::string ask(Process& asker, const Question& each)
    {
        const std::string stream = "c" + std::to_string(++m_calls);
        asker.send("call " + stream + ' ' + each.path + ' ' + each.resource + " single-response - " + each.command);
        for (;;) {
            if (asker.hasTold("value " + stream)) {
                return "value";
            }
            if (const std::string event = asker.findUnexpected("error " + stream + ' '); !event.empty()) {
                return event.substr(event.find(' ', event.find(' ') + 1) + 1);
            }
            Process::waitForAny({&asker}, std::chrono::steady_clock::now() + LIMIT);
        }
    }
    Printed may(uid_t asker, const std::string& who, const Question& each)
    {
        return runTool({"may", who, "call", each.path, each.command, "--resource", each.resource}, of(asker));
    }
    void judge(Process& asker, uid_t user, bool isCar, const Question& each);

    int m_calls = 0;
};

/// Asked, and kesactl: as the user himself, whom the service may not let ask for its own rules, and as root.
void SystemAccess::judge(Process& asker, uid_t user, bool isCar, const Question& each)
{
    SCOPED_TRACE(asker.name() + ' ' + each.path + ' ' + each.command + ' ' + each.resource);
    const bool shall = user != OTHER || (isCar ? each.mayCar : each.mayOther);
    const std::string answer = ask(asker, each);
    EXPECT_EQ(!answer.starts_with("403 "), shall) << answer;
    const std::string who = isCar ? "car" : std::to_string(user);
    const Printed told = may(user, who, each);
    EXPECT_EQ(told.status == 0, shall) << told.text << told.complaint;
    const std::string toRoot = may(0, who, each).text;
    EXPECT_THAT(told.text, testing::StartsWith(toRoot.substr(0, toRoot.size() - 1)));
    if (!shall) {
        EXPECT_THAT(answer, AllOf(HasSubstr("403 not allowed to ask this of the service: no rule of \"access\" in "),
                                  HasSubstr("lets user "), HasSubstr(std::to_string(OTHER)), HasSubstr(each.because)));
        const std::size_t begin = answer.find("no rule of"); // a user has no name that is to be proven
        EXPECT_THAT(told.text, HasSubstr(answer.substr(begin, answer.find("; that it is process nav") - begin)));
    }
}

TEST_F(SystemAccess, EveryRequestObeysTheRulesAndARefusalEndsNothingElse)
{
    const std::vector<std::string> paths = {"/media/player", "/media/radio", "/closed", "/other"};
    Process& provider = start("media", of(PROVIDER, ACCESS));
    for (const std::string& path : paths) {
        provide(provider, path);
    }
    Process& nav = startAsker("nav", OTHER, paths);
    Process& car = start("car", of(OTHER));
    provide(car, "/car"); // so it is found by its name
    for (const std::string& path : paths) {
        car.send("resolve " + path);
        car.expect("connected " + path);
    }
    Process& mate = startAsker("mate", PROVIDER, paths);
    Process& root = startAsker("root", 0, paths);
    nav.send("follow /other");
    nav.expect("value /other#1 0");
    for (const Question& each : QUESTIONS) {
        judge(nav, OTHER, false, each);
        judge(car, OTHER, true, each);
        EXPECT_THAT(ask(mate, each), testing::Not(HasSubstr("403")));
        EXPECT_THAT(ask(root, each), testing::Not(HasSubstr("403")));
    }
    judge(mate, PROVIDER, false, QUESTIONS.back());
    judge(root, 0, false, QUESTIONS.back());
    // What others may is told to none; of a process that is there, whose it is does not matter.
    EXPECT_THAT(may(OTHER, std::to_string(PROVIDER), QUESTIONS.front()).complaint,
                HasSubstr("what others may is told to root"));
    EXPECT_THAT(may(OTHER, "mate", QUESTIONS.front()).complaint, HasSubstr("what others may is told to root"));

    provider.send("feed 8");
    nav.expect("value /other#1 1");
    EXPECT_EQ(nav.findUnexpected("lost"), "");
    EXPECT_EQ(provider.countTraces("[request] of nav (process " + std::to_string(nav.pid()) + ") is refused: no rule"),
              1U)
        << provider.traces();
}

TEST_F(SystemAccess, ACodeThatSaysWhoMayIsObeyedToo)
{
    Process& provider = start("media", of(PROVIDER, R"([{"may": ["retrieve", "update"], "paths": "/media/**"}])"));
    provider.send(R"(allow {"user": 65534, "may": ["update", "insert"], "resources": "/echo"})");
    provider.expect("allowed");
    provide(provider, "/media/player");
    Process& nav = startAsker("nav", OTHER, {"/media/player"});
    Process& mate = startAsker("mate", PROVIDER, {"/media/player"});
    const std::map<std::string, bool> mayOnEcho = {{"retrieve", false}, {"update", true}, {"insert", false}};
    for (const auto& [command, shall] : mayOnEcho) {
        const Question each = {"/media/player", command, "/echo", shall, shall};
        SCOPED_TRACE(command);
        const std::string answer = ask(nav, each);
        EXPECT_EQ(answer == "value", shall) << answer;
        EXPECT_EQ(ask(mate, each), "value");
        const Printed told = may(OTHER, std::to_string(OTHER), each);
        EXPECT_EQ(told.status == 0, shall) << told.text << told.complaint;
        EXPECT_EQ(may(0, std::to_string(OTHER), each).text, told.text);
        EXPECT_EQ(may(0, std::to_string(PROVIDER), each).status, 0);
    }
    EXPECT_THAT(ask(nav, {"/media/player", "retrieve", "/echo", false, false}),
                AllOf(HasSubstr("403 not allowed to ask this of the service: no rule of the service's code lets user "),
                      HasSubstr(R"(retrieve "/echo": rule 1 (Service.h:)"),
                      HasSubstr(") is for other commands or resources")));
    EXPECT_EQ(provider.countTraces("a request of nav (process "), 1U) << provider.traces();
}

/// Nobody knows what was meant, so nobody else is let in; its own user depends on it.
TEST_F(SystemAccess, ATableThatIsWrongClosesTheProcessToOthers)
{
    Process& provider = start("media", of(PROVIDER, R"([
 {"may": "retrieve", "path": "/**"}])"));
    provider.expectTrace("the services of this process are closed to other users: ");
    provide(provider, "/media/player");
    Process& nav = startAsker("nav", OTHER, {"/media/player"});
    Process& mate = startAsker("mate", PROVIDER, {"/media/player"});
    const Question each = {"/media/player", "retrieve", "/echo", false, false};
    EXPECT_THAT(ask(nav, each),
                AllOf(HasSubstr("403 "), HasSubstr(".json:3:"), HasSubstr("unknown key 'path' of a rule")));
    EXPECT_EQ(may(OTHER, std::to_string(OTHER), each).status, 1);
    EXPECT_EQ(ask(mate, each), "value");
    EXPECT_THAT(runTool({"doctor"}).text,
                HasSubstr("media (" + std::to_string(provider.pid()) + "): its services are closed to other users"));
}

} // namespace
} // namespace kesa::system_test
