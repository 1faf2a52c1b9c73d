// What the grammar says. That any glob matches what a plain reference matches is for the fuzz target.
#include <kesa/PathPatterns.h>
#include <obr/ErrorStorage.h>

namespace {

using kesa::PathPatterns;

bool matches(const std::string& glob, const std::string& path)
{
    const auto patterns = PathPatterns::createFromGlob(glob);
    EXPECT_TRUE(patterns) << glob << ": " << obr::ErrorStorage::reason();
    return patterns && patterns->match(path);
}

TEST(PathPatterns, MatchesAsTheGrammarSays)
{
    struct {
        const char* glob;
        std::vector<const char*> matching;
        std::vector<const char*> other;
    } const cases[] = {
        {"", {"/", "/a", "/a/b"}, {}},
        {"/", {"/"}, {"/a"}},
        {"/a/**", {"/a", "/a/b", "/a/b/c"}, {"/", "/ab", "/b/a"}},
        {"/**/b", {"/b", "/a/b", "/a/a/b"}, {"/", "/bb", "/a/bb", "/b/a"}},
        {"/a*c*", {"/ac", "/abc", "/accx"}, {"/a", "/a/c", "/ba"}},
        {"/?b",
         {"/ab", "/\xC3\xBC"
                 "b"},
         {"/b", "/aab"}},
        {"/[a-cx]", {"/a", "/c", "/x"}, {"/d", "/-", "/ab"}},
        {"/[]-]", {"/]", "/-"}, {"/a"}},
        {"/[a\\]]", {"/a", "/]"}, {"/\\"}},
        {"/\\*\\{", {"/*{"}, {"/a{"}},
        {"/{a,b/c}/d", {"/a/d", "/b/c/d"}, {"/b/d", "/c/d"}},
        {"/a{,/b/**}", {"/a", "/a/b", "/a/b/c"}, {"/a/c", "/ab"}},
        {"/a/{**,b}/c", {"/a/c", "/a/b/c", "/a/x/y/c"}, {"/a", "/a/b"}},
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
        obr::ErrorStorage::ack();
        EXPECT_FALSE(PathPatterns::createFromGlob(glob)) << glob;
        EXPECT_THAT(obr::ErrorStorage::reason(),
                    testing::AllOf(testing::HasSubstr(position), testing::HasSubstr(what)));
    }
    obr::ErrorStorage::ack();
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

} // namespace
