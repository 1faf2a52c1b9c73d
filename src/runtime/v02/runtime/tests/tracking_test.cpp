// Following services by path and by query: what the simulation of whole systems does not see, the order between the
// subscriptions of one process, and refusals.
#include "RuntimeFixture.h"

namespace kesa::runtime::v02::test {
namespace {

class TrackingTest : public RuntimeFixture {};

TEST_F(TrackingTest, aFanOutReachesPathTrackersFirstThenQueriesEachInOrder)
{
    m_runtime = startRuntime();
    auto q1 = query("/a", "q1");
    auto t1 = track("/a", "t1");
    auto q2 = query("/other", "q2");
    auto t2 = track("/a", "t2");
    run();
    m_journal->take();
    auto registration = registerService("/a", "r");
    Lines lines = happened();
    lines.erase(lines.begin(), std::find(lines.begin(), lines.end(), "registration success") + 1);
    EXPECT_THAT(lines, ElementsAre("tracking update", "t1: ADDED /a", "tracking update", "t2: ADDED /a", "query update",
                                   "q1: ADDED /a", "query update"));
    // What was on its way when a tracker went still reaches it, before it dies.
    registration.dispose();
    t1.dispose();
    lines = happened();
    const auto removed = std::find(lines.begin(), lines.end(), "t1: REMOVED /a");
    EXPECT_NE(removed, lines.end());
    EXPECT_NE(std::find(removed, lines.end(), "t1: ~"), lines.end());
    t2.dispose();
    EXPECT_THAT(happened(), ElementsAre("t2: ~", "tracking stop USER"));
}

TEST_F(TrackingTest, aQueryStartsWithWhatIsRegisteredHere)
{
    m_runtime = startRuntime(R"({"use_local_registry": true, "services": [
        {"path": "/static/other", "type": "pex", "locators": ["fake://other/x"]}]})");
    auto a = registerService("/x/a", "r");
    auto b = registerService("/y/b", "r");
    run();
    m_journal->take();
    auto tracking = query("/{x,static}/**", "q");
    EXPECT_THAT(happened(), UnorderedElementsAre("query start", "q: ADDED /x/a"));
    EXPECT_THAT(traced(4, [&] { tracking.dispose(); }),
                ElementsAre(HasSubstr("[trackServices query Disposable] no remoteQuery entry found for handle=")));
    EXPECT_THAT(happened(), ElementsAre("q: ~", "query stop USER"));

    auto malformed = query("/a[", "m");
    EXPECT_THAT(happened(), ElementsAre("query start", testing::MatchesRegex("m: 400: .+"), "m: ~"));
}

} // namespace
} // namespace kesa::runtime::v02::test
