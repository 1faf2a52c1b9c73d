// The registry's policy between real processes of three users: what each may register and see, over every way to ask
// for it, and what a change of the rules does to those that run.

#include "SystemTest.h"

#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>

namespace kesa::system_test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr uid_t MEDIA = STRANGER;
constexpr uid_t NAV = NOBODY;
const std::map<std::string, uid_t> USERS = {{"media", MEDIA}, {"nav", NAV}, {"root", 0}};

constexpr const char* RULES = R"([
  {"user": 65533, "may": ["register"],        "paths": ["/media/**", "/shared/map"]},
  {"user": 65534, "may": ["register", "see"], "paths": ["/nav/*", "/shared/*"]},
  {"user": 65534, "may": ["register"],        "paths": ["/media/secret/*"]},
  {"user": 65534, "may": ["see"],             "paths": ["/media/open/*"]},
  {               "may": ["see"],             "paths": ["/end/*"]}])";

/// A service, and what the others may do with it. Root may everything.
struct Case {
    std::string path;
    std::string provider;
    std::string options;               ///< what the provider says of it
    std::map<std::string, bool> shall; ///< "media registers", "media sees" and so on; what is missing shall not
    bool letsRegister(const std::string& user) const { return user == "root" || shall.count(user + " registers") != 0; }
    bool letsSee(const std::string& user) const { return user == "root" || shall.count(user + " sees") != 0; }
};
constexpr bool YES = true;

const std::vector<Case> WITH_RULES = {
    {"/media/open/a", "media", "", {{"media registers", YES}, {"media sees", YES}, {"nav sees", YES}}},
    {"/media/secret/b", "media", "", {{"media registers", YES}, {"nav registers", YES}, {"media sees", YES}}},
    {"/media/open/c", "media", " public=true", {{"media registers", YES}, {"media sees", YES}, {"nav sees", YES}}},
    {"/media/d", "media", " public=true", {{"media registers", YES}, {"media sees", YES}}},
    {"/nav/route", "nav", "", {{"nav registers", YES}, {"nav sees", YES}}},
    {"/shared/map", "nav", "", {{"media registers", YES}, {"nav registers", YES}, {"nav sees", YES}}},
    {"/root/tool", "root", "", {}},
};

class SystemPolicy : public SystemTest {
protected:
    void SetUp() override
    {
        if (const std::string why = whyNoOtherUsers(); !why.empty()) {
            GTEST_SKIP() << why;
        }
    }

    Options of(const std::string& user) const
    {
        return {.comm = R"({"socket_mode": "0666"})", .user = USERS.at(user), .hasRegistry = true};
    }
    /// Empty: none.
    void writeRules(const std::string& rules) const
    {
        std::ofstream(m_document)
            << R"({"use_registry": true, "service_registry_locators": {"*": ["ipc://kesa-registryd/registry"]}, )"
            << R"("backends": ["comm"], "comm": {"socket_mode": "0666"})"
            << (rules.empty() ? "" : ", \"registry\": {\"policy\": " + rules + '}') << "}\n";
    }
    void startGuarded(const std::string& rules)
    {
        writeRules(rules);
        m_registry = &launchRegistry({.trace = "*=3", .hasRegistry = true, .document = m_document});
        m_registry->expect("kesa-registryd: ready at ipc://kesa-registryd/registry");
        std::filesystem::permissions(runDirectory(), std::filesystem::perms(01777));
        for (const auto& [user, uid] : USERS) {
            m_providers[user] = &start(user, of(user));
            m_watchers[user] = &start(user + "-watches", of(user));
            m_watchers[user]->send("narrate");
            m_watchers[user]->send("track **");
        }
    }
    /// What everybody sees: whoever has been told of it has been told of all before.
    void end(const std::map<std::string, std::string>& facts)
    {
        const std::string last = "/end/" + std::to_string(++m_ends);
        m_providers["root"]->send("provide " + last + " 1 public=true");
        m_ended += "** " + last + " 1;";
        for (const auto& [user, watcher] : m_watchers) {
            watcher->send("expect " + last + ' ' + facts.at(user) + m_ended);
            watcher->expect("true " + last);
        }
    }
    /// What a watcher has said since this was last asked.
    std::vector<std::string> newsOf(const std::string& user)
    {
        std::vector<std::string> news;
        std::size_t& heard = m_heard[user];
        const auto& history = m_watchers[user]->history();
        for (; heard < history.size(); ++heard) {
            const std::string& event = history[heard];
            if ((event.starts_with("shown") || event.starts_with("gone") || event.starts_with("lost")) &&
                event.find("/end/") == std::string::npos) {
                news.push_back(event);
            }
        }
        return news;
    }

    Printed run(const std::string& user, const std::vector<std::string>& words)
    {
        Options options = of(user);
        options.trace = "*=5";
        return runTool(words, options);
    }
    /// The registry's answer, as `kesactl why` has it.
    std::string explanation(const std::string& user, const std::string& path, const std::string& process = {})
    {
        std::vector<std::string> words{"why", "--json", path};
        if (!process.empty()) {
            words.insert(words.end(), {"--for", process});
        }
        const std::string text = run(user, words).text;
        const std::size_t begin = text.find("\"registry\":");
        return text.substr(begin, text.find(",\"text\":", begin) - begin);
    }

    void reload(const std::string& rules)
    {
        writeRules(rules);
        m_registry->signal(SIGHUP);
        m_registry->expect("kesa-registryd: the policy has been read again:");
    }
    void expectRefused(const std::string& user, const Case& each, const std::string& why);
    void expectAllSeen(const std::vector<Case>& cases);
    void expectTools(const std::vector<Case>& cases);
    void judge(const std::vector<Case>& cases);

    const std::string m_document = pathOf("registryd.json");
    Process* m_registry = nullptr;
    std::map<std::string, Process*> m_providers; ///< by user
    std::map<std::string, Process*> m_watchers;  ///< by user
    std::map<std::string, std::size_t> m_heard;
    std::string m_ended;
    int m_ends = 0;
};

void SystemPolicy::expectRefused(const std::string& user, const Case& each, const std::string& why)
{
    m_providers[user]->send("provide " + each.path + " 2");
    const std::string told = m_providers[user]->expect("refused " + each.path);
    EXPECT_THAT(told, HasSubstr(why)) << user << ' ' << each.path;
    m_providers[user]->send("withdraw " + each.path);
}

/// Tracked, found by a query, and resolved by path and by a query.
void SystemPolicy::expectAllSeen(const std::vector<Case>& cases)
{
    for (const auto& [user, watcher] : m_watchers) {
        std::string facts = "** /registry -;=** /registry;" + m_ended;
        for (const Case& each : cases) {
            const std::string& path = each.path;
            facts += each.letsSee(user) ? "** " + path + " 1;" + path + " 1;=" + path + ";=** " + path + ';' : "";
        }
        for (int last = 1; last <= m_ends; ++last) {
            facts += "=** /end/" + std::to_string(last) + ';';
        }
        watcher->send("expect all " + facts);
        watcher->expect("true all");
        for (const std::string& event : watcher->history()) { // not for a moment either
            for (const Case& each : cases) {
                EXPECT_TRUE(each.letsSee(user) || event.find(each.path) == std::string::npos) << user << ": " << event;
            }
        }
    }
}

void SystemPolicy::expectTools(const std::vector<Case>& cases)
{
    const std::string absent = "/nobody/has/this";
    for (const auto& [user, uid] : USERS) {
        const std::string list = run(user, {"list"}).text;
        for (const Case& each : cases) {
            SCOPED_TRACE(user + ' ' + each.path);
            EXPECT_EQ(list.find(each.path + ' ') != std::string::npos, each.letsSee(user)) << list;
            std::string known = explanation(user, each.path);
            EXPECT_EQ(known.find("\"registered\":true") != std::string::npos, each.letsSee(user)) << known;
            if (!each.letsSee(user) && !each.letsRegister(user)) { // as if it was not there
                known.replace(known.find(each.path), each.path.size(), absent);
                EXPECT_EQ(known, explanation(user, absent));
            }
            const std::string number = std::to_string(uid);
            const Printed see = run(user, {"may", number, "see", each.path});
            EXPECT_EQ(see.status == 0, each.letsSee(user)) << see.text;
            const Printed registers = run(user, {"may", number, "register", each.path});
            EXPECT_EQ(registers.status == 0, each.letsRegister(user)) << registers.text;
            EXPECT_EQ(run("root", {"may", number, "see", each.path}).status, see.status);
        }
    }
    EXPECT_THAT(run("nav", {"may", std::to_string(MEDIA), "see", "/end/1"}).complaint,
                HasSubstr("tells what others may only to root"));
}

void SystemPolicy::judge(const std::vector<Case>& cases)
{
    for (const auto& [user, watcher] : m_watchers) {
        watcher->send("resolve **");
        for (const Case& each : cases) {
            watcher->send("track " + each.path);
            watcher->send("resolve " + each.path);
        }
    }
    for (const Case& each : cases) {
        for (const auto& [user, uid] : USERS) {
            if (!each.letsRegister(user)) {
                expectRefused(user, each,
                              "403: not allowed to register this service: no rule of the policy in " + m_document +
                                  " lets user ");
            }
        }
        Process& provider = *m_providers[each.provider];
        provider.send("provide " + each.path + " 1" + each.options);
        m_watchers["root"]->expect("shown ** " + each.path);
        for (const auto& [user, uid] : USERS) {
            if (each.letsRegister(user) && user != each.provider) {
                expectRefused(user, each,
                              each.letsSee(user)
                                  ? "409: service already registered: held by process " + each.provider + " (pid "
                                  : "409: service already registered: held by a process of another user, whose service "
                                    "this one may not see");
            }
        }
    }
    m_providers["root"]->send("provide /end/" + std::to_string(++m_ends) + " 1 public=true");
    m_ended += "** /end/" + std::to_string(m_ends) + " 1;";
    expectAllSeen(cases);
    expectTools(cases);
    for (const auto& [user, provider] : m_providers) {
        expectQuiet(*provider);
    }
}

TEST_F(SystemPolicy, EveryWayToAskObeysTheRules)
{
    startGuarded(RULES);
    judge(WITH_RULES);
    for (const char* const user : {"media", "nav"}) { // once, however often
        const std::string who = std::string("of ") + user + " (process " + std::to_string(m_providers[user]->pid());
        EXPECT_EQ(m_registry->countTraces(who + ") is refused: no rule of the policy"), 1U) << m_registry->traces();
    }
}

const std::vector<Case> WITHOUT_RULES = {
    {"/media/a", "media", "", {{"media registers", YES}, {"nav registers", YES}, {"media sees", YES}}},
    {"/media/b",
     "media",
     " public=true",
     {{"media registers", YES}, {"nav registers", YES}, {"media sees", YES}, {"nav sees", YES}}},
    {"/nav/route", "nav", "", {{"media registers", YES}, {"nav registers", YES}, {"nav sees", YES}}},
    {"/root/tool",
     "root",
     "",
     {{"media registers", YES}, {"nav registers", YES}, {"media sees", YES}, {"nav sees", YES}}},
};

TEST_F(SystemPolicy, WithoutRulesEachHasHisOwnAndWhatIsPublic)
{
    startGuarded("");
    judge(WITHOUT_RULES);
}

TEST_F(SystemPolicy, AReloadTellsEachWhatHasChangedAndNothingElse)
{
    startGuarded(RULES);
    m_watchers["nav"]->send("resolve /media/open/a");
    for (const char* const path : {"/media/open/a", "/media/secret/b", "/media/d"}) {
        m_providers["media"]->send(std::string("provide ") + path + " 1");
    }
    m_providers["nav"]->send("provide /nav/route 1");
    m_watchers["nav"]->expect("connected /media/open/a");
    startBystander("ipc://nav/nav/route");
    const std::string media = "** /registry -;** /media/secret/b 1;** /media/d 1;";
    const std::string nav = "** /registry -;** /nav/route 1;";
    const std::string open = "** /media/open/a 1;";
    end({{"media", media + open}, {"nav", nav + open + "=/media/open/a;"}, {"root", media + nav + open}});
    for (const auto& [user, uid] : USERS) {
        newsOf(user);
    }

    // What media had is now nav's to register, nav sees nothing of media, and media sees what nav has. Nobody was asked
    // to prove a name so far.
    reload(R"([{"user": 65533, "may": "register", "paths": ["/media/d", "/media/open/**"]},
 {"user": 65534, "process": "nav", "may": "register", "paths": ["/nav/*", "/media/secret/*"]},
 {"user": 65533, "may": "see", "paths": "/nav/*"},
 {"may": "see", "paths": "/end/*"}])");
    EXPECT_THAT(m_providers["media"]->expect("refused /media/secret/b"),
                AllOf(HasSubstr("403: not allowed to register this service: no rule of the policy in " + m_document),
                      HasSubstr("lets user 65533, process media register"),
                      HasSubstr("rule 1 (" + m_document + ":1) is for other")));
    EXPECT_THAT(run("root", {"why", "/media/secret/b"}).text, HasSubstr("what was ended is not repeated"));
    const std::string kept = "** /registry -;** /media/d 1;** /nav/route 1;";
    end({{"media", kept + open}, {"nav", nav}, {"root", kept + open}});
    EXPECT_THAT(newsOf("media"), UnorderedElementsAre("gone ** /media/secret/b 1", "shown ** /nav/route 1"));
    EXPECT_THAT(newsOf("nav"),
                UnorderedElementsAre("gone ** /media/open/a 1", "lost /media/open/a", "gone =/media/open/a"));
    EXPECT_THAT(newsOf("root"), ElementsAre("gone ** /media/secret/b 1"));

    writeRules(R"([{"user": 65533, "may": "sea", "paths": "/**"}])");
    m_registry->signal(SIGHUP);
    m_registry->expectTrace("kesa-registryd: the policy stays as it was: " + m_document + ":1:");
    end({{"media", kept + open}, {"nav", nav}, {"root", kept + open}});
    for (const auto& [user, uid] : USERS) {
        EXPECT_THAT(newsOf(user), testing::IsEmpty()) << user;
    }

    reload(RULES);
    m_watchers["nav"]->expect("connected /media/open/a");
    m_providers["media"]->send("withdraw /media/secret/b");
    m_providers["media"]->send("provide /media/secret/b 2");
    const std::string again = "** /registry -;** /media/secret/b 2;** /media/d 1;";
    m_watchers["root"]->expect("shown ** /media/secret/b 2");
    end({{"media", again + open}, {"nav", nav + open + "=/media/open/a;"}, {"root", again + nav + open}});
    EXPECT_THAT(newsOf("media"), UnorderedElementsAre("gone ** /nav/route 1", "shown ** /media/secret/b 2"));
    EXPECT_THAT(newsOf("nav"), UnorderedElementsAre("shown ** /media/open/a 1", "shown =/media/open/a"));
    EXPECT_THAT(newsOf("root"), ElementsAre("shown ** /media/secret/b 2"));
    expectUndisturbed();
}

// A hint and a refusal name nothing that is hidden, also where it would be the nearest.
TEST_F(SystemPolicy, WhoSeesNothingIsTaughtNothing)
{
    startGuarded(RULES);
    m_providers["media"]->send("provide /media/secret/keys 1");
    m_providers["media"]->send("provide /media/open/kexx 1");
    m_watchers["root"]->expect("shown ** /media/secret/keys");
    m_watchers["nav"]->expect("shown ** /media/open/kexx");
    m_watchers["media"]->send("track /media/secret/keys");
    m_watchers["media"]->expect("shown /media/secret/keys");
    EXPECT_THAT(explanation("root", "/media/secret/keyz"), HasSubstr("\"nearest\":\"/media/secret/keys\""));
    for (const char* const path : {"/media/secret/keyz", "/media/secret/keys"}) {
        const std::string known = explanation("nav", path, "media-watches");
        EXPECT_THAT(known, HasSubstr("\"registered\":false")) << path;
        for (const char* const hint : {"nearest", "holder", "told", "because", "policy"}) {
            EXPECT_THAT(known, Not(HasSubstr(hint))) << path;
        }
    }
    EXPECT_THAT(run("nav", {"list"}).text, Not(HasSubstr("secret")));
    EXPECT_THAT(run("nav", {"show", "/media/secret/keys"}).complaint, HasSubstr("no service at"));
    EXPECT_THAT(run("nav", {"why", "/media/secret/keys"}).text, HasSubstr("/media/secret/keys: hidden"));
    EXPECT_THAT(run("nav", {"doctor"}).text, Not(HasSubstr("does not know")));
}

} // namespace
} // namespace kesa::system_test
