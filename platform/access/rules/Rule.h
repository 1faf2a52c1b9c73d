#ifndef KESA_ACCESS_RULES_RULE_H
#define KESA_ACCESS_RULES_RULE_H

#include "rules/Identity.h"

#include <kesa/PathPatterns.h>
#include <obr/api.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kesa::access {

/// Lets those who fit do something with some paths. It takes nothing from anybody.
struct KESA_API Rule {
    using Glob = std::pair<std::string, PathPatterns>;
    /// Stands for everything that one may do.
    static constexpr std::string_view ANYTHING = "*";

    bool fits(const Identity& identity) const;
    /// By his user and group alone; his process may be another one.
    bool fitsUser(const Identity& identity) const;
    bool lets(std::string_view action) const { return may.count(action) > 0 || may.count(ANYTHING) > 0; }

    std::optional<std::set<std::int64_t>> users;  ///< by their numbers; none: all
    std::optional<std::set<std::int64_t>> groups; ///< the same
    std::set<std::int64_t> members;               ///< users of the groups beside those whose own it is
    std::optional<std::vector<Glob>> processes;   ///< by their names
    std::set<std::string, std::less<>> may;
    std::vector<Glob> paths;     ///< of services
    std::vector<Glob> resources; ///< inside of the services; empty: all
    std::string who;             ///< in words: "user media"
    std::string what;            ///< in words: "may register and see /media/**"
    std::string place;           ///< where it stands, for people: "kesa.json:4"; empty: unknown
};

/// The numbers of the rules that fit somebody, from 0.
KESA_API std::vector<std::size_t> concerning(const std::vector<Rule>& rules, const Identity& identity);

/// "rule 1 (kesa.json:4)"; without a place "rule 1".
KESA_API std::string placeOf(const std::vector<Rule>& rules, std::size_t number);

/// The first of them, and how many more there are: "rule 1 (kesa.json:4), rule 2 (kesa.json:5), and 7 more".
KESA_API std::string placesOf(const std::vector<Rule>& rules, const std::vector<std::size_t>& numbers);

/// "rule 1 (kesa.json:4) is for other paths"; `what`: "other paths". Empty when there are none.
KESA_API std::string areFor(const std::vector<Rule>& rules, const std::vector<std::size_t>& numbers,
                            std::string_view what);

/// What rules are for that fit the user of a refused process, but not its proven name; or that has none.
KESA_API std::string_view otherProcesses(const Identity& identity);

} // namespace kesa::access

#endif
