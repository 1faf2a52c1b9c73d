// A real runtime hosts the registry over a fake backend: what it provides is shown to other processes, from the
// registry itself to its end.
#include "tests/support.h"

#include <kesa/registry/RegistryHost.h>
#include <runtime/v02/runtime/tests/RuntimeFixture.h>

namespace kesa::registry::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class RegistryHostTest : public runtime::v02::test::RuntimeFixture {
protected:
    static constexpr const char* DOCUMENT =
        R"({"use_registry": true, "service_registry_locators": ["fake://me/registry"]})";

    void host()
    {
        m_runtime = startRuntime(DOCUMENT);
        m_host = std::make_unique<RegistryHost>(
            *m_runtime, [this] { m_clients.m_lines->push_back("ready"); },
            [this](const Response& error) { m_clients.m_lines->push_back(Response::getErrorMessageWithCode(error)); });
        m_clients.m_asked = &m_host->registry();
    }
    ~RegistryHostTest() override { m_host.reset(); }

    std::unique_ptr<RegistryHost> m_host;
    Clients m_clients;
};

TEST_F(RegistryHostTest, ShowsWhatItsProcessProvides)
{
    host();
    Process other("other", ""), watcher("watcher", "");
    m_clients.query(watcher, "all", Query("**"));
    run();
    EXPECT_THAT(m_clients.told(), ElementsAre("all: []", "all: [+/registry]", "ready"));
    auto own = registerService("/own", "own");
    run();
    EXPECT_THAT(m_clients.told(), ElementsAre("all: [+/own]"));
    m_clients.registerService(other, "claim", test::service("/own"));
    run();
    EXPECT_THAT(m_clients.told(), ElementsAre("claim: 409: service already registered", "claim: gone"));

    // A path that another living process holds: the own service waits for it, and says so.
    void* const held = m_clients.registerService(other, "held", test::service("/taken"));
    m_clients.told();
    auto hidden = registerService("/taken", "hidden");
    EXPECT_THAT(traced(4,
                       [&] {
                           run();
                           other.peer->answer(true);
                       }),
                ElementsAre(testing::AllOf(HasSubstr("'/taken'"), HasSubstr("other (process 7)"))));
    EXPECT_TRUE(m_clients.told().empty());
    m_clients.m_asked->cancelRequest(held);
    EXPECT_THAT(m_clients.told(), ElementsAre("all: [-/taken]", "all: [+/taken]", "held: gone"));
    own.dispose();
    hidden.dispose();
    run();
    EXPECT_THAT(m_clients.told(), ElementsAre("all: [-/own]", "all: [-/taken]"));
}

TEST_F(RegistryHostTest, DoesNotRefuseWhatItsProcessHasJustWithdrawn)
{
    host();
    Process other("other", "");
    auto own = registerService("/own", "own");
    run();
    m_clients.told();
    own.dispose(); // the mirror has not heard of it
    m_clients.registerService(other, "claim", test::service("/own"));
    EXPECT_THAT(m_clients.told(), testing::IsEmpty());
    run();
    EXPECT_THAT(m_clients.told(), ElementsAre("claim: registered /own"));
}

TEST_F(RegistryHostTest, EndsItsRequestsAndGoes)
{
    host();
    run();
    EXPECT_TRUE(m_network->service("fake://me/registry") != nullptr);
    m_host->stop();
    run();
    EXPECT_TRUE(m_network->service("fake://me/registry") == nullptr);
    EXPECT_THAT(m_clients.told(), ElementsAre("ready"));
}

TEST_F(RegistryHostTest, SaysThatItCannotBeReached)
{
    m_network->refusedPaths.insert("fake://me/registry");
    host();
    run();
    EXPECT_THAT(m_clients.told(), ElementsAre("409"));
    EXPECT_THAT(m_assertions->take(), ElementsAre(HasSubstr("registry service can not be registed")));
}

} // namespace
} // namespace kesa::registry::test
