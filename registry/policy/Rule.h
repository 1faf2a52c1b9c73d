#ifndef KESA_REGISTRY_POLICY_RULE_H
#define KESA_REGISTRY_POLICY_RULE_H

#include <kesa/PathPatterns.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace kesa::registry {

/// Who asks, by the kernel's word.
struct Identity {
    std::int64_t uid = -1; ///< -1: unknown
    std::int64_t gid = -1;
    std::string process; ///< empty: it has not proven its name

    friend bool operator==(const Identity&, const Identity&) = default;
    friend bool operator<(const Identity& a, const Identity& b)
    {
        return std::tie(a.uid, a.gid, a.process) < std::tie(b.uid, b.gid, b.process);
    }
};

enum class Right : std::uint8_t { eREGISTER, eSEE };
inline constexpr std::array<std::string_view, 2> RIGHT_NAMES = {"register", "see"};
inline std::string_view nameOf(Right right) noexcept
{
    return RIGHT_NAMES[static_cast<std::size_t>(right)];
}

/// Lets those who fit do something with some paths. It takes nothing from anybody.
struct Rule {
    using Glob = std::pair<std::string, PathPatterns>;

    bool fits(const Identity& identity) const;
    bool lets(Right right) const noexcept { return may[static_cast<std::size_t>(right)]; }

    std::optional<std::set<std::int64_t>> users;  ///< by their numbers; none: all
    std::optional<std::set<std::int64_t>> groups; ///< the same
    std::set<std::int64_t> members;               ///< users of the groups beside those whose own it is
    std::optional<std::vector<Glob>> processes;   ///< by their names
    std::array<bool, RIGHT_NAMES.size()> may{};
    std::vector<Glob> paths;
    std::string who;  ///< in words: "user media"
    std::string what; ///< in words: "may register and see /media/**"
    int line = 0;     ///< in the document, from 1; 0: unknown
};

/// What the rules look up of the machine's users and groups.
class IAccounts {
public:
    virtual ~IAccounts();
    virtual std::optional<std::int64_t> findUser(const std::string& nameOrNumber) const = 0;
    virtual std::optional<std::int64_t> findGroup(const std::string& nameOrNumber) const = 0;
    virtual std::vector<std::int64_t> membersOf(std::int64_t group) const = 0;
    /// A user's own one; -1: unknown.
    virtual std::int64_t groupOf(std::int64_t user) const = 0;
    virtual std::string userName(std::int64_t user) const = 0;
};

} // namespace kesa::registry

#endif
