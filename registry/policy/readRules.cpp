#include "policy/readRules.h"

#include <obr/ErrorStorage.h>
#include <util/nearestName.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesa::registry {

using util::config::Complaint;
using util::config::described;
using util::config::DocumentPath;
using util::config::excerpt;
using util::config::Value;

namespace {

using Severity = Complaint::Severity;

constexpr const char* GOOD_RULE =
    R"(write one such as {"user": "media", "may": ["register", "see"], "paths": ["/media/**"]})";
constexpr std::array<std::string_view, 5> KEYS = {"user", "group", "process", "may", "paths"};

/// Reads one rule after the other. What is wrong is complained of where it stands.
class RuleReader {
public:
    RuleReader(const IAccounts& accounts, std::vector<Complaint>& complaints)
        : m_accounts(accounts), m_complaints(complaints)
    {}

    Rule read(const Value& value, const DocumentPath& place)
    {
        m_place = &place;
        Rule rule;
        if (!value.isDictionary()) {
            complain({}, fmt::format("expected a rule, an object, found {}", described(value)), GOOD_RULE);
            return rule;
        }
        complainOfUnknown(value);
        readUsers(value, rule);
        readGroups(value, rule);
        readProcesses(value, rule);
        readRights(value, rule);
        readPaths(value, rule);
        rule.who = rule.who.empty() ? "anybody" : rule.who;
        return rule;
    }

private:
    using Step = std::variant<std::string, std::size_t>;

    void complain(DocumentPath below, std::string text, std::string advice, Severity severity = Severity::eERROR)
    {
        below.insert(below.begin(), m_place->begin(), m_place->end());
        m_complaints.push_back({severity, std::move(below), std::move(text), std::move(advice)});
    }

    void complainOfUnknown(const Value& value)
    {
        for (const auto& [key, member] : value) {
            if (std::find(KEYS.begin(), KEYS.end(), key) == KEYS.end()) {
                const std::string_view meant = util::nearestName(key, {KEYS.begin(), KEYS.end()});
                complain({std::string(util::config::shortenedKey(key))},
                         fmt::format("unknown key '{}' of a rule", util::config::shortenedKey(key)),
                         meant.empty() ? R"(a rule has "user", "group", "process", "may" and "paths")"
                                       : fmt::format("did you mean '{}'?", meant));
            }
        }
    }

    /// Calls `take(text, where)` with each text or number of a member, which is one or a list of them. False when the
    /// member is not there.
    template <class Take>
    bool readTexts(const Value& rule, const char* key, bool mayBeNumber, const char* advice, const Take& take)
    {
        const Value& value = rule[key];
        if (!value.isDefined()) {
            return false;
        }
        const auto readOne = [&](const Value& one, const DocumentPath& where) {
            std::uint64_t number = 0;
            if (one.isString() && !one.stringView().empty()) {
                take(std::string(one.stringView()), where);
            } else if (mayBeNumber && !one.isString() && !one.get(number)) {
                take(std::to_string(number), where);
            } else {
                complain(
                    where,
                    fmt::format("expected {}, found {}", mayBeNumber ? "a name or a number" : "a text", described(one)),
                    advice);
            }
        };
        if (!value.isArray()) {
            readOne(value, {key});
            return true;
        }
        if (value.arraySize() == 0) {
            complain({key}, "the list is empty, so the rule lets nobody do anything", advice);
        }
        for (std::size_t i = 0; i < value.arraySize(); ++i) {
            readOne(value[i], {key, i});
        }
        return true;
    }

    static void addWho(Rule& rule, const char* kind, const std::vector<std::string>& names)
    {
        if (!names.empty()) {
            rule.who.append(rule.who.empty() ? "" : ", ").append(fmt::format("{} {}", kind, fmt::join(names, " or ")));
        }
    }

    void readUsers(const Value& value, Rule& rule)
    {
        std::set<std::int64_t> users;
        std::vector<std::string> names;
        if (readTexts(value, "user", true, R"(write a name or a number, such as "media" or 1001, or a list of them)",
                      [&](const std::string& name, const DocumentPath& where) {
                          names.push_back(name);
                          if (const auto user = m_accounts.findUser(name)) {
                              users.insert(*user);
                          } else {
                              complain(where, fmt::format("there is no user \"{}\" on this machine", excerpt(name)),
                                       "correct the name, or make the user", Severity::eWARNING);
                          }
                      })) {
            rule.users = std::move(users);
        }
        addWho(rule, "user", names);
    }

    void readGroups(const Value& value, Rule& rule)
    {
        std::set<std::int64_t> groups;
        std::vector<std::string> names;
        if (readTexts(value, "group", true, R"(write a name or a number, such as "audio" or 29, or a list of them)",
                      [&](const std::string& name, const DocumentPath& where) {
                          names.push_back(name);
                          if (const auto group = m_accounts.findGroup(name)) {
                              groups.insert(*group);
                              const auto members = m_accounts.membersOf(*group);
                              rule.members.insert(members.begin(), members.end());
                          } else {
                              complain(where, fmt::format("there is no group \"{}\" on this machine", excerpt(name)),
                                       "correct the name, or make the group", Severity::eWARNING);
                          }
                      })) {
            rule.groups = std::move(groups);
        }
        addWho(rule, "group", names);
    }

    void readProcesses(const Value& value, Rule& rule)
    {
        std::vector<Rule::Glob> processes;
        std::vector<std::string> names;
        if (readTexts(value, "process", false, R"(write the name of a process, or a glob such as "media-*")",
                      [&](const std::string& name, const DocumentPath& where) {
                          names.push_back(name);
                          addGlob(name, where, processes);
                      })) {
            rule.processes = std::move(processes);
        }
        addWho(rule, "process", names);
    }

    void readRights(const Value& value, Rule& rule)
    {
        const bool isThere = readTexts(
            value, "may", false, R"(write a list of "register" and "see")",
            [&](const std::string& name, const DocumentPath& where) {
                const auto found = std::find(RIGHT_NAMES.begin(), RIGHT_NAMES.end(), name);
                if (found == RIGHT_NAMES.end()) {
                    const std::string_view meant = util::nearestName(name, {RIGHT_NAMES.begin(), RIGHT_NAMES.end()});
                    complain(where, fmt::format("unknown right \"{}\"", excerpt(name)),
                             meant.empty() ? R"(known are "register" and "see")"
                                           : fmt::format("did you mean \"{}\"?", meant));
                    return;
                }
                rule.may[static_cast<std::size_t>(found - RIGHT_NAMES.begin())] = true;
                rule.what.append(rule.what.empty() ? "may " : " and ").append(name);
            });
        if (!isThere) {
            complain({}, "the rule does not say what is allowed",
                     R"(write "may": ["register", "see"], or one of them)");
        }
    }

    void readPaths(const Value& value, Rule& rule)
    {
        const bool isThere =
            readTexts(value, "paths", false, R"(write a list of globs such as ["/media/**"])",
                      [&](const std::string& glob, const DocumentPath& where) {
                          if (glob.front() != '/' && glob != "**") {
                              complain(where, fmt::format("\"{}\" fits no path of a service", excerpt(glob)),
                                       "begin it with '/', or write \"**\" for all");
                              return;
                          }
                          addGlob(glob, where, rule.paths);
                          rule.what.append(rule.paths.size() > 1 ? ", " : " ").append(glob);
                      });
        if (!isThere) {
            complain({}, "the rule does not say for which paths", R"(write "paths": ["**"] for all)");
        }
    }

    void addGlob(const std::string& glob, const DocumentPath& where, std::vector<Rule::Glob>& globs)
    {
        if (auto compiled = PathPatterns::createFromGlob(glob)) {
            globs.emplace_back(glob, *compiled);
            return;
        }
        complain(where, fmt::format("malformed glob: {}", obr::ErrorStorage::takeReason()),
                 "docs/protocol_registry.md says what a glob is");
    }

    const IAccounts& m_accounts;
    std::vector<Complaint>& m_complaints;
    const DocumentPath* m_place = nullptr;
};

/// A table that lets nobody do the one or the other is rarely meant.
void complainOfMissingRights(const std::vector<Rule>& rules, const DocumentPath& place,
                             std::vector<Complaint>& complaints)
{
    for (const Right right : {Right::eREGISTER, Right::eSEE}) {
        if (std::none_of(rules.begin(), rules.end(), [right](const Rule& rule) { return rule.lets(right); })) {
            complaints.push_back(
                {Severity::eWARNING, place,
                 right == Right::eREGISTER
                     ? "no rule lets anybody register: only root and the registry's own user can"
                     : "no rule lets anybody see what other users provide: only root and the registry's own user can",
                 fmt::format("write a rule with \"{}\", unless that is meant", nameOf(right))});
        }
    }
}

} // namespace

std::vector<Rule> readRules(const Value& policy, const DocumentPath& place, const IAccounts& accounts,
                            std::vector<Complaint>& complaints)
{
    std::vector<Rule> rules;
    if (!policy.isDefined()) {
        return rules;
    }
    if (!policy.isArray()) {
        complaints.push_back({Severity::eERROR, place,
                              fmt::format("expected a list of rules, found {}", described(policy)),
                              fmt::format("{}, in a list", GOOD_RULE)});
        return rules;
    }
    RuleReader reader(accounts, complaints);
    const std::size_t before = complaints.size();
    for (std::size_t i = 0; i < policy.arraySize(); ++i) {
        DocumentPath element = place;
        element.emplace_back(i);
        rules.push_back(reader.read(policy[i], element));
    }
    if (complaints.size() == before) {
        complainOfMissingRights(rules, place, complaints);
    }
    return rules;
}

} // namespace kesa::registry
