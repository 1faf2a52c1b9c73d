#include "rules/Rule.h"

#include "rules/IAccounts.h"

#include <fmt/format.h>

#include <algorithm>

namespace kesa::access {

IAccounts::~IAccounts() = default;

bool Rule::fitsUser(const Identity& identity) const
{
    return (!users || users->count(identity.uid) > 0) &&
           (!groups || groups->count(identity.gid) > 0 || members.count(identity.uid) > 0);
}

bool Rule::fits(const Identity& identity) const
{
    if (!fitsUser(identity)) {
        return false;
    }
    return !processes || (!identity.process.empty() &&
                          std::any_of(processes->begin(), processes->end(), [&identity](const Glob& glob) {
                              return glob.second.match('/' + identity.process);
                          }));
}

std::vector<std::size_t> concerning(const std::vector<Rule>& rules, const Identity& identity)
{
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < rules.size(); ++i) {
        if (rules[i].fits(identity)) {
            numbers.push_back(i);
        }
    }
    return numbers;
}

std::string placeOf(const std::vector<Rule>& rules, std::size_t number)
{
    const std::string& place = rules[number].place;
    return place.empty() ? fmt::format("rule {}", number + 1) : fmt::format("rule {} ({})", number + 1, place);
}

std::string placesOf(const std::vector<Rule>& rules, const std::vector<std::size_t>& numbers)
{
    constexpr std::size_t MOST_NAMED = 3;
    std::string places;
    for (std::size_t i = 0; i < std::min(numbers.size(), MOST_NAMED); ++i) {
        places.append(i == 0 ? "" : ", ").append(placeOf(rules, numbers[i]));
    }
    if (numbers.size() > MOST_NAMED) {
        places.append(fmt::format(", and {} more", numbers.size() - MOST_NAMED));
    }
    return places;
}

std::string areFor(const std::vector<Rule>& rules, const std::vector<std::size_t>& numbers, std::string_view what)
{
    return numbers.empty()
               ? std::string()
               : fmt::format("{} {} for {}", placesOf(rules, numbers), numbers.size() == 1 ? "is" : "are", what);
}

std::string_view otherProcesses(const Identity& identity)
{
    return identity.process.empty() ? "processes by their proven names, and who provides nothing has none"
                                    : "other processes";
}

} // namespace kesa::access
