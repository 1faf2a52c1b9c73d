#ifndef KESA_ACCESS_GATES_TABLE_H
#define KESA_ACCESS_GATES_TABLE_H

#include "gates/Gate.h"
#include "rules/IAccounts.h"
#include "rules/Identity.h"
#include "rules/IdentityNames.h"
#include "rules/Rule.h"

#include <obr/api.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kesa::access {

/// Who may ask what of the services of a process.
///
/// A service that is at no path of any rule is open to all. Any other one is closed to those whom no rule lets in; root
/// and the process's own user may everything. The services through which processes find and describe each other,
/// "/registry" and "/.well-known/process", are always open.
///
/// Not for several threads at once, and neither are its gates.
class KESA_API Table {
public:
    /// How the refusals of one that cannot be read begin.
    static constexpr std::string_view CLOSED = "only root and the process's own user may ask, until this is mended: ";

    /// `name`: what the table is, for people. A rule without paths is for all services. `accounts` outlives it.
    Table(std::int64_t ownUid, std::vector<Rule> rules, std::string name, const IAccounts& accounts);
    /// One that nobody can read: every service is closed.
    Table(std::int64_t ownUid, std::string problem, const IAccounts& accounts);

    /// The same one for all who may the same; kept by who asks often. Null: he may everything.
    GatePtr gateOf(const Identity& identity, const std::string& service);

    /// Root, and the process's own user.
    bool isTrusted(const Identity& identity) const noexcept;
    /// Nobody can read it, so that every service is closed.
    bool isUnreadable() const noexcept { return !m_problem.empty(); }
    /// Whether a rule asks for the name of a process, which has to be proven.
    bool asksForProcess() const noexcept { return m_asksForProcess; }

    /// The process provides a service there. True when there are rules whose paths have fitted none so far.
    bool noteService(const std::string& path);
    /// Says once which these are, and which services are open to all; empty when there are none.
    std::string takeIdleRules();

    struct Question {
        std::string service;
        std::string command;
        std::optional<std::string> resource; ///< none: any
        std::string claimedName;             ///< what the process calls itself
    };
    struct Verdict {
        bool isAllowed = false;
        std::string because; ///< for people: by which rule, or what is missing and which rules there are
    };
    Verdict judge(const Identity& identity, const Question& question);
    /// What `judge` says to one whom a gate does not let. What it takes to look at the rules is kept: who asks without
    /// end costs a text.
    std::string whyRefused(const Identity& identity, const Question& question);

private:
    using Numbers = std::vector<std::size_t>;

    /// What is known of somebody and a service that is not open to him.
    struct Known {
        GatePtr gate;
        // For refusals; empty until the first one.
        std::string who;
        std::string others;          ///< which rules there are
        bool isProcessAsked = false; ///< by one of them
    };

    const Numbers& rulesFor(const std::string& service);
    Numbers ofThose(const Numbers& numbers, const Identity& identity) const;
    std::string whichOthers(const Numbers& all, const Identity& identity) const;
    Known& know(const Identity& identity, const std::string& service);

    const std::int64_t m_ownUid;
    const std::vector<Rule> m_rules;
    const std::string m_problem;
    const std::string m_name;
    bool m_asksForProcess = false;
    Numbers m_idle;                   ///< that have fitted no service so far, and of which nothing was said
    std::set<std::string> m_atNoRule; ///< services; bounded
    IdentityNames m_names;
    // Bounded.
    std::map<std::string, Numbers> m_ofServices;
    std::map<std::pair<Identity, std::string>, Known> m_known;
    std::map<Numbers, std::weak_ptr<Gate>> m_gates;
};

} // namespace kesa::access

#endif
