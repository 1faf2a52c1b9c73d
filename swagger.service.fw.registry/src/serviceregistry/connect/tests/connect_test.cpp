// What the helpers ask of the runtime, and what becomes of its answers.
#include <SimulatedTime.h>
#include <Variable.h>
#include <ease/tests/PlayedRuntime.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/connectServiceRegistryPex.h>
#include <kesa/serviceregistry/registerServiceRegistryPex.h>
#include <serviceregistry/protocol/tests/Fakes.h>

#include <functional>

namespace kesa::serviceregistry::test {
namespace {

using kesa::test::Api;
using kesa::test::Variable;
using runtime::v02::KesaRuntime;
using Client = optional<std::shared_ptr<ServiceRegistryPexClient>>;

class ConnectTest : public kesa::test::SimulatedTime, public testing::Test {
protected:
    void connect(const std::string& suffix)
    {
        connection = connectServiceRegistryPex(
            runtime,
            std::make_unique<kesa::test::NotingHandler<Client>>(
                runtime.log,
                [](const Client& client) {
                    return client ? "client '" + (*client)->getDefinition().path.toString() + "'" : "absent";
                }),
            suffix);
    }

    const Api api = std::make_shared<PlayedService>();
    kesa::test::PlayedRuntime runtime;
    Disposable connection;
};

TEST_F(ConnectTest, TracksAndResolvesThePath)
{
    connect("");
    const auto answers = std::move(runtime.trackingAndResolving);
    answers->onNext(runtime::v02::ResolveResult<Api>(serviceAt("/registry"), api));
    EXPECT_FALSE(answers->onNext(nullopt)) << "a service that goes away is news";
    answers->onError(Response::createErrorResponse(404, "none"));
    connection.dispose();
    EXPECT_THAT(runtime.take(),
                ElementsAre("track and resolve /registry", "client '/registry'", "absent", "404: none", "untrack"));
    connect("x");
    connect("/x");
    EXPECT_THAT(runtime.log, testing::Contains("track and resolve /registry/x").Times(2));
    connection = connectServiceRegistryPex(runtime, nullptr);
    EXPECT_EQ(runtime.trackingAndResolving, nullptr) << "for the runtime to refuse";
}

TEST_F(ConnectTest, GoesToTheLocatorOfABypassedPath)
{
    const Variable none("KESA_CONFIG_DIR", "/nonexistent");
    ASSERT_FALSE(KesaRuntime::initInstance("me", R"({"backends": ["local"], "serializer-formats": ["application/json"],
        "use_local_registry": true, "bypass": {"me": ["/registry/x"]}})"));
    connect("x");
    runtime.connected(api);
    runtime.lost();
    EXPECT_THAT(runtime.take(), ElementsAre("resolve /registry/x", "client ''", "absent"));
    connect("");
    KesaRuntime::shutdown();
    connect("x");
    EXPECT_THAT(runtime.take(), ElementsAre("track and resolve /registry", "track and resolve /registry/x", "~"));
}

TEST_F(ConnectTest, RegistersAndEndsRequestsBeforeTheRegistration)
{
    using Service = std::shared_ptr<ServiceRegistryPexService>;
    const GenericObject metainfo{{"k", 1}};
    registerServiceRegistryPex(nullptr, nullptr, noting<ServiceDef>(runtime.log)).dispose();
    EXPECT_THAT(runtime.take(), ElementsAre("400: the runtime is null", "~"));
    const std::pair<std::function<Disposable(const Service&)>, std::string> registrations[] = {
        {[&](auto& service) { return registerServiceRegistryPex(&runtime, service, metainfo, nullptr, "x"); },
         R"(/registry/x pex 1.0.0 {"k":1})"},
        {[&](auto& service) { return registerServiceRegistryPex(&runtime, service, nullptr); },
         "/registry pex 1.0.0 {}"},
        {[&](auto& service) { return registerRegistry(runtime, service, metainfo, nullptr); },
         R"(/registry registry 1.0.0 {"k":1})"},
    };
    for (const auto& [call, text] : registrations) {
        // The caller keeps nothing but the end of the registration.
        Disposable end =
            call(std::make_shared<ServiceRegistryPexService>(std::make_unique<ScriptedRegistry>(runtime.log)));
        const Api service = std::exchange(runtime.registered, nullptr);
        service->request(Request("retrieve", "/"), noteTexts(runtime.log));
        end.dispose();
        end.dispose();
        EXPECT_THAT(runtime.take(), ElementsAre("register " + text, HasSubstr("query"), HasSubstr("503"), "~",
                                                "cancel query ", testing::StartsWith("unregister /registry")));
    }
}

} // namespace
} // namespace kesa::serviceregistry::test
