// Globs are compared with a plain reference: expand the alternatives, then match segment by segment with backtracking.
#include <kesa/PathPatterns.h>
#include <obr/ErrorStorage.h>

#include <random>

namespace {

using kesa::PathPatterns;

bool matches(const std::string& glob, const std::string& path)
{
    const auto patterns = PathPatterns::createFromGlob(glob);
    EXPECT_TRUE(patterns) << glob << ": " << obr::ErrorStorage::reason();
    return patterns && patterns->match(path);
}

std::string reasonAgainst(const std::string& glob)
{
    obr::ErrorStorage::ack();
    EXPECT_FALSE(PathPatterns::createFromGlob(glob)) << glob;
    std::string reason = obr::ErrorStorage::reason();
    obr::ErrorStorage::ack();
    return reason;
}

TEST(PathPatterns, MatchesAsTheGrammarSays)
{
    struct {
        const char* glob;
        std::vector<const char*> matching;
        std::vector<const char*> other;
    } const cases[] = {
        {"", {"/", "/a", "/a/b"}, {}},
        {"**", {"/", "/a", "/a/b"}, {}},
        {"/", {"/"}, {"/a"}},
        {"/a/b", {"/a/b"}, {"/a", "/a/b/c", "/a/bc"}},
        {"a/b/", {"/a/b"}, {"/a/b/c"}},
        {"/a/**", {"/a", "/a/b", "/a/b/c"}, {"/", "/ab", "/b/a"}},
        {"/a/**/", {"/a", "/a/b"}, {"/b"}},
        {"/**/b", {"/b", "/a/b", "/a/a/b"}, {"/", "/bb", "/a/bb", "/b/a"}},
        {"/a/**/b/**/c", {"/a/b/c", "/a/x/b/y/z/c", "/a/b/b/c/c"}, {"/a/c", "/a/b", "/a/b/cc"}},
        {"/**/**", {"/", "/a", "/a/b"}, {}},
        {"/*", {"/a", "/abc"}, {"/", "/a/b"}},
        {"/a/*", {"/a/b"}, {"/a", "/a/b/c"}},
        {"/a*c*", {"/ac", "/abc", "/accx"}, {"/a", "/a/c", "/ba"}},
        {"/?b",
         {"/ab", "/\xC3\xBC"
                 "b"},
         {"/b", "/aab"}},
        {"/[a-cx]", {"/a", "/c", "/x"}, {"/d", "/-", "/ab"}},
        {"/[!a-c]", {"/d", "/\xC3\xBC"}, {"/a", "/", "/dd"}},
        {"/[]-]", {"/]", "/-"}, {"/a"}},
        {"/[a\\]]", {"/a", "/]"}, {"/\\"}},
        {"/\\*\\{", {"/*{"}, {"/a{"}},
        {"/a,b}]", {"/a,b}]"}, {"/a"}},
        {"/{a,b/c}/d", {"/a/d", "/b/c/d"}, {"/b/d", "/c/d"}},
        {"{/a,b}", {"/a", "/b"}, {"/", "/ab"}},
        {"/a{,/b/**}", {"/a", "/a/b", "/a/b/c"}, {"/a/c", "/ab"}},
        {"/a/{**,b}/c", {"/a/c", "/a/b/c", "/a/x/y/c"}, {"/a", "/a/b"}},
        {"/a/{,b}/c", {"/a/c", "/a/b/c"}, {"/a/x/c", "/c"}},
        {"/x{1,{2,3}{4,}}", {"/x1", "/x2", "/x24", "/x3", "/x34"}, {"/x", "/x4", "/x14"}},
        {"/a//b", {"/a/b"}, {"/a"}},
    };
    for (const auto& [glob, matching, other] : cases) {
        for (const char* path : matching) {
            EXPECT_TRUE(matches(glob, path)) << glob << " on " << path;
        }
        for (const char* path : other) {
            EXPECT_FALSE(matches(glob, path)) << glob << " on " << path;
        }
    }
}

TEST(PathPatterns, NamesWhatIsMalformedAndWhere)
{
    struct {
        std::string glob, position, what;
    } const cases[] = {
        {"/a/[b", "position 4:", "']'"},
        {"/{a,b", "position 2:", "'}'"},
        {"/a\\", "position 3:", "'\\'"},
        {"/a**", "position 3:", "'**'"},
        {"/**a", "position 4:", "'**'"},
        {"/a{,/}**", "position 7:", "'**'"},
        {"/[z-a]", "position 3:", "backwards"},
        {"/[a/b]", "position 4:", "'/'"},
        {"/*/\xFF", "position 4:", "UTF-8"},
        {"/\xC3", "position 2:", "UTF-8"},
        {std::string(4097, 'a'), "4097", "4096 bytes"},
        {std::string(1025, '*'), "1025", "1024"},
        {std::string(40, '{') + std::string(40, '}'), "position 33:", "32 deep"},
    };
    for (const auto& [glob, position, what] : cases) {
        const std::string reason = reasonAgainst(glob);
        EXPECT_THAT(reason, testing::AllOf(testing::HasSubstr(position), testing::HasSubstr(what)));
    }
}

TEST(PathPatterns, NeverBacktracks)
{
    std::string stars, alternatives, path = "/";
    for (int i = 0; i < 250; ++i) {
        stars += "*a";
        path += "aaaaaaaaaa";
    }
    for (int i = 0; i < 200; ++i) {
        alternatives += "{a,}";
    }
    EXPECT_FALSE(matches("/" + stars + "b", path));
    EXPECT_TRUE(matches("/" + stars, path));
    EXPECT_FALSE(matches("/" + alternatives + "b", path));
}

// The reference.

std::vector<std::string> expand(const std::string& glob)
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

std::vector<std::string> split(const std::string& path)
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

bool segmentMatches(std::string_view glob, std::string_view text)
{
    if (glob.empty()) {
        return text.empty();
    }
    if (glob[0] == '*') {
        return segmentMatches(glob.substr(1), text) || (!text.empty() && segmentMatches(glob, text.substr(1)));
    }
    return !text.empty() && (glob[0] == '?' || glob[0] == text[0]) && segmentMatches(glob.substr(1), text.substr(1));
}

bool segmentsMatch(const std::vector<std::string>& glob, std::size_t g, const std::vector<std::string>& path,
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

TEST(PathPatterns, AgreesWithAPlainReference)
{
    std::mt19937 random(1);
    const auto draw = [&](unsigned bound) { return static_cast<unsigned>(random() % bound); };
    const std::vector<std::string> pieces = {"a",  "b",    "*",     "?",     "/",        "/",
                                             "**", "/**/", "{a,b}", "{,/a}", "{a/b,**}", "{a,{b,/}}"};
    int compared = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string glob;
        for (unsigned count = 1 + draw(6); count > 0; --count) {
            glob += pieces[draw(static_cast<unsigned>(pieces.size()))];
        }
        const auto patterns = PathPatterns::createFromGlob(glob);
        if (!patterns) {
            continue;
        }
        std::string path;
        for (unsigned count = draw(5); count > 0; --count) {
            path += '/';
            for (unsigned length = 1 + draw(2); length > 0; --length) {
                path += static_cast<char>('a' + draw(2));
            }
        }
        // Marked before expansion, which may put two "*" together that are no "**".
        std::string marked = glob;
        for (std::size_t at = 0; (at = marked.find("**", at)) != std::string::npos;) {
            marked.replace(at, 2, "#");
        }
        bool expected = false;
        for (const std::string& one : expand(marked)) {
            expected = expected || segmentsMatch(split(one), 0, split(path), 0);
        }
        EXPECT_EQ(patterns->match(path), expected) << glob << " on " << path;
        ++compared;
    }
    EXPECT_GT(compared, 5000);
}

} // namespace
