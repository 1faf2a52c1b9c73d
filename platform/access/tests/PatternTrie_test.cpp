// The trie finds exactly the globs that match, whatever was inserted and erased before, and nothing is left of them.
#include "globs/PatternTrie.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

namespace {

using kesa::PathPatterns;
using kesa::access::PatternTrie;
using kesa::access::SplitGlob;

TEST(PatternTrie, AgreesWithPathPatterns)
{
    std::mt19937 random(1);
    const auto draw = [&](std::size_t bound) { return random() % bound; };
    const std::vector<std::string> pieces = {
        "a",        "b",    "/",       "/",   "/",   "*",       "?",         "**",  "/**/", "{a,b}", "{,a}", "{,/a}",
        "{a/b,**}", "[ab]", "[!a}{,]", "\\a", "\\/", "{[{],b}", "{a,{b,/}}", "{b}", "a*",   "}",     ","};
    PatternTrie trie;
    std::map<PatternTrie::Id, std::pair<std::string, PathPatterns>> present;
    PatternTrie::Id last = 0;
    std::size_t found = 0;
    for (int round = 0; round < 4000; ++round) {
        std::string glob;
        for (std::size_t count = draw(7); count > 0; --count) {
            glob += pieces[draw(pieces.size())];
        }
        if (const auto patterns = PathPatterns::createFromGlob(glob)) {
            present.emplace(++last, std::pair(glob, *patterns));
            trie.insert(last, glob, *patterns);
        }
        if (present.size() > 60) {
            const auto leaving = std::next(present.begin(), static_cast<std::ptrdiff_t>(draw(present.size())));
            trie.erase(leaving->first, leaving->second.first);
            present.erase(leaving);
        }
        std::string path;
        for (std::size_t count = draw(5); count > 0; --count) {
            path += '/';
            for (std::size_t length = 1 + draw(2); length > 0; --length) {
                path += "aab{,"[draw(5)];
            }
        }
        path = path.empty() ? "/" : path;
        std::vector<PatternTrie::Id> expected;
        for (const auto& [id, glob_patterns] : present) {
            if (glob_patterns.second.match(path)) {
                expected.push_back(id);
                const std::string prefix = SplitGlob(glob_patterns.first).pathPrefix();
                EXPECT_EQ(path.substr(0, prefix.size()), prefix) << glob_patterns.first;
                EXPECT_TRUE(!SplitGlob(glob_patterns.first).isPath() || path == prefix) << glob_patterns.first;
            }
        }
        std::vector<PatternTrie::Id> matching;
        std::size_t cost = 0;
        for (const auto& [id, glob_patterns] : present) {
            cost += PatternTrie::cost(glob_patterns.first, glob_patterns.second);
        }
        EXPECT_LE(trie.match(path, matching), cost + PatternTrie::cost("/", *PathPatterns::createFromGlob("/")));
        std::sort(matching.begin(), matching.end());
        ASSERT_EQ(matching, expected) << path << " after " << glob;
        found += matching.size();
    }
    EXPECT_GT(found, 10000U);
    for (const auto& [id, glob_patterns] : present) {
        trie.erase(id, glob_patterns.first);
    }
    EXPECT_TRUE(trie.isEmpty());
}

// What is dear for a trie, in the worst company: each glob of a kind matches the beginning of the path that costs most.
TEST(PatternTrie, CostsNoMoreThanItSaysAndOnceForEqualGlobs)
{
    int dear = 0;
    const std::string longest = '/' + std::string(1023, 'a');
    std::string deepest;
    for (int depth = 0; depth < 64; ++depth) {
        deepest += "/aaaaaaaaaaaaaa";
    }
    const auto many = [](const std::string& begin, char letter, const std::string& end) {
        std::vector<std::string> globs;
        for (std::size_t count = 1; count < 100; ++count) {
            globs.push_back(begin + std::string(count, letter) + end);
        }
        return globs;
    };
    for (const std::vector<std::string>& globs :
         {many("/", 'a', "*"), many("/*", 'a', ""), many("/*", 'a', "*b"), many("/a*?", 'a', "*"), many("/", '?', "*"),
          many("**/", 'a', "*"), many("**/*/a*", 'a', "/**"), many("/{,b", 'a', "*/x}"), many("{**/*a,b", 'c', "/**}"),
          many("/[a", 'b', "]*x"), many("/", 'a', "b*")}) {
        PatternTrie trie;
        std::size_t cost = PatternTrie::cost("/", *PathPatterns::createFromGlob("/"));
        std::map<PatternTrie::Id, std::string> present;
        const auto insertAll = [&] {
            for (const std::string& glob : globs) {
                const auto patterns = PathPatterns::createFromGlob(glob);
                ASSERT_TRUE(patterns) << glob;
                trie.insert(present.size() + 1, glob, *patterns);
                present.emplace(present.size() + 1, glob);
            }
        };
        insertAll();
        for (const std::string& glob : globs) {
            cost += PatternTrie::cost(glob, *PathPatterns::createFromGlob(glob));
        }
        std::vector<PatternTrie::Id> once;
        std::vector<PatternTrie::Id> twice;
        const std::size_t steps = trie.match(longest, once);
        const std::size_t below = trie.match(deepest, once);
        EXPECT_LE(std::max(steps, below), cost) << globs.front();
        dear += 20 * std::max(steps, below) > cost ? 1 : 0;
        insertAll();
        EXPECT_EQ(trie.match(longest, twice), steps);
        EXPECT_EQ(trie.match(deepest, twice), below);
        EXPECT_EQ(twice.size(), 2 * once.size());
    }
    EXPECT_GE(dear, 6) << "it says much more than it is";
}

TEST(PatternTrie, TakesGlobsApart)
{
    struct {
        const char* glob;
        std::vector<std::string> segments;
        bool hasRest;
    } const cases[] = {
        {"", {"**"}, false},
        {"/", {}, false},
        {"a//b/", {"a", "b"}, false},
        {"/a/*/{b,c}x/**", {"a", "*", "{b,c}x", "**"}, false},
        {"/a/*/b{/c,d}/e", {"a", "*"}, true},
        {"/a/{,b}/c", {"a"}, true},
    };
    for (const auto& [glob, segments, hasRest] : cases) {
        const SplitGlob split(glob);
        EXPECT_EQ(split.segments, segments) << glob;
        EXPECT_EQ(split.hasRest, hasRest) << glob;
    }
}

} // namespace
