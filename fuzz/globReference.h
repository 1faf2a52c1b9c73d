#ifndef KESA_FUZZ_GLOBREFERENCE_H
#define KESA_FUZZ_GLOBREFERENCE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Globs without sets and escapes, as plainly as it goes: all alternatives are expanded, then matched segment by
/// segment with backtracking.
namespace globReference {

inline std::vector<std::string> expand(const std::string& glob)
{
    int depth = 0;
    std::size_t begin = std::string::npos;
    std::vector<std::size_t> cuts;
    for (std::size_t i = 0; i < glob.size(); ++i) {
        if (glob[i] == '{' && depth++ == 0) {
            begin = i;
            cuts = {i};
        } else if (glob[i] == ',' && depth == 1) {
            cuts.push_back(i);
        } else if (glob[i] == '}' && --depth == 0) {
            cuts.push_back(i);
            std::vector<std::string> all;
            for (std::size_t cut = 0; cut + 1 < cuts.size(); ++cut) {
                const std::string one = glob.substr(0, begin) +
                                        glob.substr(cuts[cut] + 1, cuts[cut + 1] - cuts[cut] - 1) + glob.substr(i + 1);
                for (std::string& expanded : expand(one)) {
                    all.push_back(std::move(expanded));
                }
            }
            return all;
        }
    }
    return {glob};
}

inline std::vector<std::string> split(const std::string& path)
{
    std::vector<std::string> segments;
    std::string segment;
    for (const char c : path + '/') {
        if (c != '/') {
            segment += c;
        } else if (!segment.empty()) {
            segments.push_back(std::exchange(segment, {}));
        }
    }
    return segments;
}

inline bool segmentMatches(std::string_view glob, std::string_view text)
{
    if (glob.empty()) {
        return text.empty();
    }
    if (glob[0] == '*') {
        return segmentMatches(glob.substr(1), text) || (!text.empty() && segmentMatches(glob, text.substr(1)));
    }
    return !text.empty() && (glob[0] == '?' || glob[0] == text[0]) && segmentMatches(glob.substr(1), text.substr(1));
}

inline bool segmentsMatch(const std::vector<std::string>& glob, std::size_t g, const std::vector<std::string>& path,
                          std::size_t p)
{
    if (g == glob.size()) {
        return p == path.size();
    }
    if (glob[g] == "#") {
        return segmentsMatch(glob, g + 1, path, p) || (p < path.size() && segmentsMatch(glob, g, path, p + 1));
    }
    return p < path.size() && segmentMatches(glob[g], path[p]) && segmentsMatch(glob, g + 1, path, p + 1);
}

inline bool matches(std::string glob, const std::string& path)
{
    // "**" is marked before expansion, which may put two "*" together that are none.
    for (std::size_t at = 0; (at = glob.find("**", at)) != std::string::npos;) {
        glob.replace(at, 2, "#");
    }
    if (glob.empty()) {
        return true;
    }
    for (const std::string& one : expand(glob)) {
        if (segmentsMatch(split(one), 0, split(path), 0)) {
            return true;
        }
    }
    return false;
}

} // namespace globReference

#endif
