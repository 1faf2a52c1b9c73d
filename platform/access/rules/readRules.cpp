#include "rules/readRules.h"

#include <obr/ErrorStorage.h>
#include <util/nearestName.h>

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>

namespace kesa::access {

using util::config::Complaint;
using util::config::described;
using util::config::DocumentPath;
using util::config::excerpt;
using util::config::Value;

namespace {

using Severity = Complaint::Severity;

/// "a, b and c".
std::string inWords(const std::vector<std::string>& texts, const char* last = " and ")
{
    const std::size_t count = texts.size();
    std::string words;
    for (std::size_t i = 0; i < count; ++i) {
        words.append(i == 0 ? "" : i + 1 == count ? last : ", ").append(texts[i]);
    }
    return words;
}

std::vector<std::string> quoted(const std::vector<std::string_view>& names)
{
    std::vector<std::string> texts;
    for (const std::string_view name : names) {
        texts.push_back(fmt::format("\"{}\"", name));
    }
    return texts;
}

/// Reads one rule after the other. What is wrong is complained of where it stands.
class RuleReader {
public:
    RuleReader(const RuleForm& form, const IAccounts& accounts, std::vector<Complaint>& complaints)
        : m_form(form), m_accounts(accounts), m_complaints(complaints), m_keys({"user", "group"})
    {
        if (form.hasProcesses) {
            m_keys.emplace_back("process");
        }
        m_keys.emplace_back("may");
        if (form.hasPaths) {
            m_keys.emplace_back("paths");
        }
        if (form.hasResources) {
            m_keys.emplace_back("resources");
        }
    }

    Rule read(const Value& value, const DocumentPath& place)
    {
        m_place = &place;
        Rule rule;
        if (!value.isDictionary()) {
            complain({}, fmt::format("expected a rule, an object, found {}", described(value)),
                     "write one such as " + m_form.example);
            return rule;
        }
        complainOfUnknown(value);
        readUsers(value, rule);
        readGroups(value, rule);
        if (m_form.hasProcesses) {
            readProcesses(value, rule);
        }
        rule.what = "may " + readActions(value, rule);
        readPlaces(value, rule);
        rule.who = rule.who.empty() ? "anybody" : rule.who;
        return rule;
    }

private:
    void complain(DocumentPath below, std::string text, std::string advice, Severity severity = Severity::eERROR)
    {
        below.insert(below.begin(), m_place->begin(), m_place->end());
        m_complaints.push_back({severity, std::move(below), std::move(text), std::move(advice)});
    }

    void complainOfUnknown(const Value& value)
    {
        for (const auto& [key, member] : value) {
            if (std::find(m_keys.begin(), m_keys.end(), key) == m_keys.end()) {
                const std::string_view meant = util::nearestName(key, m_keys);
                complain({std::string(util::config::shortenedKey(key))},
                         fmt::format("unknown key '{}' of a rule", util::config::shortenedKey(key)),
                         meant.empty() ? "a rule has " + inWords(quoted(m_keys))
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
            } else if (one.isString()) {
                complain(where, "the text is empty, and fits nothing", advice);
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

    struct Group {
        std::optional<std::int64_t> number;
        std::vector<std::int64_t> members;
    };

    /// The one look-up too many is complained of, and none is made any more.
    bool mayLookUp(const DocumentPath& where)
    {
        const std::size_t count = m_users.size() + m_groups.size();
        if (count == MOST_LOOKED_UP + 1) {
            complain(where, fmt::format("one more user or group, of {} at most in one table", MOST_LOOKED_UP),
                     "put users into groups, and name these");
        }
        return count <= MOST_LOOKED_UP;
    }

    std::optional<std::int64_t> findUser(const std::string& name, const DocumentPath& where)
    {
        const auto [found, isNew] = m_users.try_emplace(name);
        if (isNew && mayLookUp(where)) {
            found->second = m_accounts.findUser(name);
        }
        return found->second;
    }

    const Group& findGroup(const std::string& name, const DocumentPath& where)
    {
        const auto [found, isNew] = m_groups.try_emplace(name);
        if (isNew && mayLookUp(where)) {
            found->second.number = m_accounts.findGroup(name);
            found->second.members =
                found->second.number ? m_accounts.membersOf(*found->second.number) : std::vector<std::int64_t>();
        }
        return found->second;
    }

    /// It lets nobody do anything.
    void complainOfNobody(std::string_view kind, const std::string& name, const DocumentPath& where)
    {
        const bool isAll = name == "*" || name == "**";
        complain(where, fmt::format("there is no {} \"{}\"{}", kind, excerpt(name), isAll ? "" : " on this machine"),
                 isAll ? fmt::format("leave \"{}\" out for everybody", kind)
                       : fmt::format("correct the name, or make the {}", kind),
                 Severity::eWARNING);
    }

    void readUsers(const Value& value, Rule& rule)
    {
        std::set<std::int64_t> users;
        std::vector<std::string> names;
        if (readTexts(value, "user", true, R"(write a name or a number, such as "media" or 1001, or a list of them)",
                      [&](const std::string& name, const DocumentPath& where) {
                          names.push_back(name);
                          if (const auto user = findUser(name, where)) {
                              users.insert(*user);
                          } else {
                              complainOfNobody("user", name, where);
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
                          const Group& group = findGroup(name, where);
                          if (group.number) {
                              groups.insert(*group.number);
                              rule.members.insert(group.members.begin(), group.members.end());
                          } else {
                              complainOfNobody("group", name, where);
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

    /// Answers them in words.
    std::string readActions(const Value& value, Rule& rule)
    {
        const std::string known = inWords(quoted(m_form.actions));
        const std::string all = m_form.mayBeOther ? R"(, or "*" for all)" : "";
        std::vector<std::string> names;
        const bool isThere = readTexts(value, "may", false, fmt::format("write a list of {}{}", known, all).c_str(),
                                       [&](const std::string& name, const DocumentPath& where) {
                                           if (isAction(name, where, known)) {
                                               rule.may.insert(name);
                                               names.push_back(name);
                                           }
                                       });
        if (!isThere) {
            const std::string some = inWords(quoted({m_form.actions[0], m_form.actions[1]}), ", ");
            complain({}, "the rule does not say what is allowed",
                     fmt::format("write \"may\": [{}], or one of them{}", some, all));
        }
        return rule.may.count(Rule::ANYTHING) > 0 ? "do anything" : inWords(names);
    }

    bool isAction(const std::string& name, const DocumentPath& where, const std::string& known)
    {
        const bool isKnown = std::find(m_form.actions.begin(), m_form.actions.end(), name) != m_form.actions.end();
        if (isKnown || (m_form.mayBeOther && name == Rule::ANYTHING)) {
            return true;
        }
        const auto& elsewhere = m_form.actionsElsewhere;
        if (name != Rule::ANYTHING && std::find(elsewhere.begin(), elsewhere.end(), name) != elsewhere.end()) {
            complain(where, fmt::format("\"{}\" is no {} of {}", name, m_form.action, m_form.name),
                     std::string(m_form.elsewhere));
            return false;
        }
        const std::string_view meant = util::nearestName(name, m_form.actions);
        if (m_form.mayBeOther && meant.empty()) {
            complain(
                where, fmt::format("\"{}\" is none of the usual commands", excerpt(name)),
                fmt::format("write {}, unless it is one of the service's own", inWords(quoted(m_form.actions), " or ")),
                Severity::eHINT);
            return true;
        }
        complain(where, fmt::format("unknown {} \"{}\"", m_form.action, excerpt(name)),
                 meant.empty() ? fmt::format("known are {}; {}", known, m_form.elsewhere)
                               : fmt::format("did you mean \"{}\"?", meant));
        return false;
    }

    void readPlaces(const Value& value, Rule& rule)
    {
        if (m_form.hasPaths && !readGlobs(value, "paths", R"(write a list of globs such as ["/media/**"])",
                                          "path of a service", rule.paths)) {
            complain({}, "the rule does not say for which paths", R"(write "paths": ["**"] for all)");
        }
        if (m_form.hasResources) {
            readGlobs(value, "resources", R"(write a list of globs such as ["/volume"])", "resource", rule.resources);
        }
        for (const std::vector<Rule::Glob>* const globs : {&rule.resources, &rule.paths}) {
            if (!globs->empty()) {
                const bool isSecond = globs == &rule.paths && m_form.hasResources;
                rule.what.append(!isSecond ? " " : rule.resources.empty() ? " at " : " of ");
                std::vector<std::string> texts;
                for (const auto& [glob, patterns] : *globs) {
                    texts.push_back(glob);
                }
                rule.what.append(inWords(texts, ", "));
            }
        }
    }

    bool readGlobs(const Value& value, const char* key, const char* advice, const char* what,
                   std::vector<Rule::Glob>& globs)
    {
        return readTexts(value, key, false, advice, [&](const std::string& glob, const DocumentPath& where) {
            if (glob.front() != '/' && glob != "**") {
                complain(where, fmt::format("\"{}\" fits no {}", excerpt(glob), what),
                         "begin it with '/', or write \"**\" for all");
                return;
            }
            addGlob(glob, where, globs);
        });
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

    const RuleForm& m_form;
    const IAccounts& m_accounts;
    std::vector<Complaint>& m_complaints;
    std::vector<std::string_view> m_keys;
    const DocumentPath* m_place = nullptr;
    // Looked up once, as that may take long.
    std::map<std::string, std::optional<std::int64_t>> m_users;
    std::map<std::string, Group> m_groups;
};

} // namespace

std::vector<Rule> readRules(const Value& list, const DocumentPath& place, const RuleForm& form,
                            const IAccounts& accounts, std::vector<Complaint>& complaints)
{
    std::vector<Rule> rules;
    if (!list.isDefined()) {
        return rules;
    }
    if (!list.isArray()) {
        complaints.push_back({Severity::eERROR, place,
                              fmt::format("expected a list of rules, found {}", described(list)),
                              fmt::format("write one such as {}, in a list", form.example)});
        return rules;
    }
    if (list.arraySize() > MOST_RULES) {
        complaints.push_back({Severity::eERROR, place,
                              fmt::format("{} rules are too many: {} is the most", list.arraySize(), MOST_RULES),
                              "put users into a group, or paths into a glob, that one rule names"});
        return rules;
    }
    RuleReader reader(form, accounts, complaints);
    for (std::size_t i = 0; i < list.arraySize(); ++i) {
        DocumentPath element = place;
        element.emplace_back(i);
        rules.push_back(reader.read(list[i], element));
    }
    return rules;
}

} // namespace kesa::access
