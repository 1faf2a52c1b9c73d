// What the history keeps, and that nobody can make it keep more.
#include "store/History.h"

#include <gtest/gtest.h>

namespace kesa::registry::test {
namespace {

History::Event lost(std::int64_t when, const std::string& reason = "closed")
{
    return {History::Event::What::eLOST, 1, when, {"p", 7, 0}, reason};
}

TEST(History, KeepsTheLastEventsOfTheLastPaths)
{
    History history;
    for (std::size_t number = 0; number < 2 * History::MAX_PATHS; ++number) {
        history.add("/kept", lost(static_cast<std::int64_t>(number)));
        history.add('/' + std::to_string(number), lost(0));
    }
    EXPECT_EQ(history.paths(), History::MAX_PATHS);
    ASSERT_EQ(history.of("/kept").size(), History::MAX_EVENTS);
    EXPECT_EQ(history.of("/kept").back().when, 2 * History::MAX_PATHS - 1);
    EXPECT_EQ(history.of("/kept").front().when, 2 * History::MAX_PATHS - History::MAX_EVENTS);
    EXPECT_TRUE(history.of("/0").empty());
    EXPECT_EQ(history.of('/' + std::to_string(2 * History::MAX_PATHS - 1)).size(), 1U);
}

TEST(History, CountsAClaimThatIsRefusedAgainAsItsLastTime)
{
    History history;
    for (const auto& [when, pid] : {std::pair(1, 7), {2, 7}, {3, 8}}) {
        history.add("/a", {History::Event::What::eREFUSED, 0, when, {"p", pid, 0}, "held"});
    }
    history.add("/a", lost(4));
    history.add("/a", lost(5));
    std::vector<std::int64_t> times;
    for (const History::Event& event : history.of("/a")) {
        times.push_back(event.when);
    }
    EXPECT_EQ(times, (std::vector<std::int64_t>{2, 3, 4, 5}));
}

TEST(History, StaysBelowItsBytesWhateverItIsTold)
{
    History history;
    const std::string longPath(4000, 'p');
    for (int number = 0; number < 5000; ++number) {
        history.add('/' + std::to_string(number % 1000) + longPath, lost(number, std::string(60000, 'x')));
        ASSERT_LE(history.bytes(), History::MAX_BYTES);
    }
    EXPECT_GT(history.paths(), 100U);
    std::string letters;
    while (letters.size() <= History::MAX_TEXT_BYTES) {
        letters += "\u20ac"; // of 3 bytes
    }
    history.add("/a", lost(0, letters));
    EXPECT_EQ(history.of("/a").back().reason, letters.substr(0, History::MAX_TEXT_BYTES / 3 * 3));
}

} // namespace
} // namespace kesa::registry::test
