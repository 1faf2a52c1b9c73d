// Following services by path and by query.
#include "RuntimeFixture.h"

namespace kesa::runtime::v02::test {
namespace {

class TrackingTest : public RuntimeFixture {
protected:
    Disposable query(const Query& query, const std::string& name)
    {
        return m_runtime->trackServices(query, handler<ServiceUpdate>(name));
    }
};

TEST_F(TrackingTest, aTrackerHearsOfTheServiceAtOnceAndThenOfEveryChange)
{
    m_runtime = startRuntime();
    auto early = track("/a", "early");
    auto registration = registerService("/a", "r");
    auto late = m_runtime->trackService("/a", false, handler<ServiceUpdate>("late"));
    run();
    EXPECT_TRUE(m_journal->contains("early: ADDED /a"));
    EXPECT_TRUE(m_journal->contains("late: ADDED /a"));
    m_journal->take();

    early.dispose();
    EXPECT_THAT(happened(), ElementsAre("early: gone", "tracking stop USER"));
    registration.dispose();
    EXPECT_THAT(happened(), Contains("late: REMOVED /a"));
    late.dispose();
    EXPECT_THAT(happened(), ElementsAre("late: gone", "tracking stop USER"));
    // The entry is gone with its last user.
    EXPECT_THAT(traced(2, [&] { m_runtime.reset(); }), Contains("2 [dtor] m_runtimeEntries 0"));
}

TEST_F(TrackingTest, theDisposableOfARefusedQueryEndsNobodyElses)
{
    m_runtime = startRuntime();
    for (int i = 0; i < 10; ++i) { // the freed handler's address comes back at once, as a rule
        auto malformed = query(Query("["), "malformed");
        run();
        auto good = query(Query("**"), "good");
        malformed.dispose();
        run();
        m_journal->take();
        auto registration = registerService("/a", "r");
        EXPECT_THAT(happened(), Contains("good: ADDED /a"));
        registration.dispose();
        good.dispose();
        run();
    }
}

TEST_F(TrackingTest, aFanOutReachesPathTrackersFirstThenQueriesEachInOrder)
{
    m_runtime = startRuntime();
    auto q1 = query(Query("/a"), "q1");
    auto t1 = track("/a", "t1");
    auto q2 = query(Query("/other"), "q2");
    auto t2 = track("/a", "t2");
    run();
    m_journal->take();
    auto registration = registerService("/a", "r");
    run();
    Lines lines = m_journal->take();
    lines.erase(lines.begin(), std::find(lines.begin(), lines.end(), "registration success") + 1);
    EXPECT_THAT(lines, ElementsAre("tracking update", "t1: ADDED /a", "tracking update", "t2: ADDED /a", "query update",
                                   "q1: ADDED /a", "query update"));
    // What was on its way when a tracker went still reaches it, before it dies.
    registration.dispose();
    t1.dispose();
    run();
    lines = m_journal->take();
    const auto removed = std::find(lines.begin(), lines.end(), "t1: REMOVED /a");
    EXPECT_NE(removed, lines.end());
    EXPECT_NE(std::find(removed, lines.end(), "t1: gone"), lines.end());
}

TEST_F(TrackingTest, aQueryStartsWithWhatIsRegisteredHere)
{
    m_runtime = startRuntime(R"({"use_local_registry": true, "services": [
        {"path": "/static/other", "type": "pex", "locators": ["fake://other/x"]}]})");
    auto a = provide("/x/a");
    auto b = provide("/x/b");
    auto c = provide("/y/c");
    auto tracking = query(Query("/{x,static}/**"), "q");
    EXPECT_THAT(happened(), UnorderedElementsAre("query start", "q: ADDED /x/a", "q: ADDED /x/b"));
    c.dispose();
    a.dispose();
    Lines lines = happened();
    EXPECT_THAT(lines, Contains("q: REMOVED /x/a"));
    EXPECT_THAT(lines, Not(Contains("q: REMOVED /y/c")));

    EXPECT_THAT(traced(4, [&] { tracking.dispose(); }),
                ElementsAre(HasSubstr("[trackServices query Disposable] no remoteQuery entry found for handle=")));
    EXPECT_THAT(happened(), ElementsAre("q: gone", "query stop USER"));
    b.dispose();
    EXPECT_THAT(happened(), Not(Contains(HasSubstr("q:"))));

    auto malformed = query(Query("/a["), "m");
    lines = happened();
    EXPECT_THAT(lines, ElementsAre("query start", HasSubstr("m: error 400: "), "m: gone"));
    EXPECT_GT(lines[1].size(), std::string("m: error 400: ").size());
}

} // namespace
} // namespace kesa::runtime::v02::test
