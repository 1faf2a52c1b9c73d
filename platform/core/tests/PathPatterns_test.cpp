// What the grammar says. That any glob matches what a plain reference matches is for the fuzz target, what is told of a
// malformed one is in the session globs of kesactl.
#include <kesa/PathPatterns.h>
#include <obr/ErrorStorage.h>

#include <random>
#include <vector>

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

TEST(PathPatterns, CostsNoMoreThanItSays)
{
    std::mt19937 random(1);
    const auto draw = [&](std::size_t bound) { return random() % bound; };
    const std::vector<std::string> pieces = {"a", "a",    "b",     "*",     "*",       "?",    "/",
                                             "/", "/**/", "{a,b}", "{a*,}", "{a/b,?}", "[ab]", "[!a-c]"};
    std::size_t dear = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string glob;
        for (std::size_t count = 1 + draw(30); count > 0; --count) {
            glob += pieces[draw(pieces.size())];
        }
        const auto patterns = PathPatterns::createFromGlob(glob);
        if (!patterns) {
            obr::ErrorStorage::ack();
            continue;
        }
        std::string path = "/";
        for (std::size_t count = draw(200); count > 0; --count) {
            path += "aaaaab/"[draw(7)];
        }
        std::size_t steps = 0;
        EXPECT_EQ(patterns->match(path, steps), patterns->match(path));
        ASSERT_LE(steps, patterns->cost(path.size())) << glob << " on " << path;
        ASSERT_LE(patterns->cost(path.size()), patterns->cost(2 * path.size(), 2));
        dear += 4 * steps > patterns->cost(path.size()) ? 1U : 0U;
    }
    EXPECT_GT(dear, 100U) << "it says much more than it is";
}

} // namespace
