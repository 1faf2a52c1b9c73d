// Errors kept for those who join a proxy, and services kept for as long as a backend may call them.
#include "RuntimeFixture.h"

#include <comm/Condition.h>
#include <obr/ErrorStorage.h>
#include <runtime/v02/runtime/BackendList.h>

namespace kesa::runtime::v02::test {
namespace {

class BackendListTest : public RuntimeFixture {
protected:
    ~BackendListTest() override
    {
        m_executor->stop();
        m_list->shutdown();
    }
    void startup(const Lines& names)
    {
        onExecutor([&] { m_list->startup("me", names, "local", m_executor); });
    }
    void onExecutor(const std::function<void()>& work) { ASSERT_TRUE(comm::runAndWait(*m_executor, work)); }
    void open(const std::string& locator, const std::string& name, bool failed = false)
    {
        onExecutor([&] { EXPECT_EQ(m_list->openProxy(url(locator), handler<ProxyState>(name)), failed); });
    }
    std::shared_ptr<comm::ActiveObject> m_executor = std::make_shared<comm::ActiveObject>("executor");
    std::unique_ptr<BackendList> m_list = std::make_unique<BackendList>();
};

TEST_F(BackendListTest, startsWhatItKnowsOnce)
{
    EXPECT_THAT(traced(1,
                       [&] {
                           startup({"comm", "local", "comm"});
                       }),
                ElementsAre("1 [startup] 'me'", "1 [startup] backend not known='local'"));
    EXPECT_THAT(m_network->calls(), ElementsAre("start me", "start me"));
    startup({"comm"});
    EXPECT_THAT(m_assertions.take(), ElementsAre("m_backends.size() == 0, startup, "));
}

TEST_F(BackendListTest, keepsAnErrorForThoseWhoJoin)
{
    startup({"comm"});
    open("fake://x/s", "a");
    m_network->failed("fake://x/s", 500, "broken");
    m_network->connected("fake://x/s");
    open("fake://x/s", "b");
    EXPECT_THAT(happened(), ElementsAre("a: 500: broken", "a: connected", "b: connected", "b: 500: broken"));
    open("other://x/s", "unknown", true);
    EXPECT_THAT(happened(), ElementsAre(HasSubstr("unknown: 404: no backend of this process reaches"), "unknown: ~"));
    onExecutor(
        [&] { EXPECT_EQ(obr::ErrorStorage::reason(), "no locators found or defined for service 'other://x/s'"); });
}

TEST_F(BackendListTest, keepsServicesForAsLongAsABackendMayCallThem)
{
    startup({"comm"});
    const url a("fake://me/a");
    const url b("fake://me/b");
    const url c("fake://me/c");
    m_network->refusedPaths.insert("fake://me/a");
    onExecutor([&] {
        // Two services with one first locator, of which each is provided on another one only.
        EXPECT_FALSE(m_list->provideURL({a, b}, service()));
        EXPECT_FALSE(m_list->provideURL({a, c}, service()));
        EXPECT_TRUE(m_list->provideURL({url("other://me/a")}, service()));
        EXPECT_TRUE(m_list->provideURL({}, service()));
    });
    m_network->calls();
    EXPECT_THAT(traced(4, [&] { onExecutor([&] { m_list->unprovideURL({b}); }); }),
                ElementsAre(HasSubstr("[unprovideURL] no locator match with key in m_providedServices map")));
    EXPECT_THAT(m_network->calls(), ElementsAre("unprovide fake://me/b"));
    EXPECT_EQ(m_livingServices, 2);
    onExecutor([&] { m_list->unprovideURL({a}); });
    EXPECT_EQ(m_livingServices, 1);
    EXPECT_TRUE(m_network->isProvided("fake://me/c"));
    onExecutor([&] { m_list->unprovideURL({a, c}); });
    EXPECT_EQ(m_livingServices, 0);

    ServiceDef record;
    m_network->refusedPaths.insert("/a");
    EXPECT_THAT(traced(4, [&] { onExecutor([&] { EXPECT_TRUE(m_list->providePath("/a", service(), record)); }); }),
                ElementsAre("4 [providePath] could not provide service='/a'"));
    EXPECT_THAT(record.locators, IsEmpty());
}

} // namespace
} // namespace kesa::runtime::v02::test
