#include <util/nearestName.h>

#include <algorithm>
#include <cctype>
#include <string>

namespace util {
namespace {

/// Letter case and the kind of separator are what is mistaken most often.
std::string plain(std::string_view name)
{
    std::string text;
    for (const char c : name) {
        if (c != '_' && c != '-') {
            text.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
        }
    }
    return text;
}

std::size_t editDistance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

} // namespace

std::size_t nameDistance(std::string_view one, std::string_view other)
{
    return editDistance(plain(one), plain(other));
}

std::size_t leastFarDistance(std::string_view name)
{
    return std::max<std::size_t>(2, name.size() / 3) + 1;
}

std::string_view nearestName(std::string_view name, const std::vector<std::string_view>& known)
{
    if (name.size() > LONGEST_NEAR_NAME) {
        return {};
    }
    const std::string wanted = plain(name);
    std::string_view best;
    std::size_t bestDistance = leastFarDistance(name);
    for (const std::string_view candidate : known) {
        const std::string text = plain(candidate);
        if (std::max(text.size(), wanted.size()) - std::min(text.size(), wanted.size()) >= bestDistance) {
            continue; // so many characters at least have to be inserted or removed
        }
        const std::size_t distance = editDistance(wanted, text);
        if (distance < bestDistance && distance < candidate.size()) {
            bestDistance = distance;
            best = candidate;
        }
    }
    return best;
}

} // namespace util
