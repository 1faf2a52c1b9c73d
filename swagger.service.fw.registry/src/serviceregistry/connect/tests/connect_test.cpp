// What the helpers ask of the runtime, and what becomes of its answers.
#include <comm/Scheduler.h>
#include <comm/SimulatedScheduler.h>
#include <kesa/responsehandlers/FuncResponseHandler.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/connectServiceRegistryPex.h>
#include <kesa/serviceregistry/registerServiceRegistryPex.h>
#include <serviceregistry/protocol/tests/Fakes.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <unistd.h>

namespace kesa::serviceregistry::test {
namespace {

using runtime::v02::KesaRuntime;
using testing::_;
using Api = std::shared_ptr<IKesaApi>;
using Resolved = runtime::v02::ResolveResult<Api>;
using Client = optional<std::shared_ptr<ServiceRegistryPexClient>>;
template <class T>
using Handler = std::unique_ptr<IResponseHandler<T>>;

class MockRuntime : public runtime::v02::IRuntimeRegistry {
public:
    using Type = ServiceDef::TypeEnum;
    using Versions = std::vector<std::string>;
    using Text = const std::string&;
    using Changes = ResourceUpdate<ServiceDef>;
    MOCK_METHOD(Disposable, registerService, (Text, Api, Type, const GenericObject&, Handler<ServiceDef>&&),
                (override));
    MOCK_METHOD(Disposable, registerService,
                (Text, Api, Type, const Versions&, const GenericObject&, Handler<ServiceDef>&&), (override));
    MOCK_METHOD(Disposable, trackService, (Text, bool, Handler<Changes>&&), (override));
    MOCK_METHOD(Disposable, trackService, (Text, Handler<Changes>&&), (override));
    MOCK_METHOD(Disposable, trackServices, (const Query&, Handler<Changes>&&), (override));
    MOCK_METHOD(Disposable, resolveService, (const url&, Handler<optional<Api>>&&), (override));
    MOCK_METHOD(Disposable, resolveService, (const ServiceDef&, Handler<optional<Api>>&&), (override));
    MOCK_METHOD(Disposable, trackAndResolveService, (Text, Handler<optional<Resolved>>&&), (override));
    MOCK_METHOD(Disposable, trackAndResolveServices,
                (const Query&, Handler<runtime::v02::ResolveResult<optional<Api>>>&&), (override));
};

class ConnectTest : public testing::Test {
protected:
    /// The clients are noted as the paths of their definitions.
    Disposable connect(const std::string& suffix)
    {
        return connectServiceRegistryPex(
            runtime,
            std::make_unique<responsehandlers::FuncResponseHandler<Client>>(
                [this](const Client& client) {
                    heard.push_back(client ? "client '" + (*client)->getDefinition().path.toString() + "'" : "absent");
                    return false;
                },
                [this](const Response& error) { heard.push_back(Response::getErrorMessageWithCode(error)); }, [] {}),
            suffix);
    }
    Disposable ending()
    {
        return Disposable([this] { heard.emplace_back("disposed"); });
    }

    Lines heard;
    testing::StrictMock<MockRuntime> runtime;
};

TEST_F(ConnectTest, TracksAndResolvesThePath)
{
    Handler<optional<Resolved>> answers;
    EXPECT_CALL(runtime, trackAndResolveService("/registry", _)).WillOnce([&](auto&, auto&& handler) {
        answers = std::move(handler);
        return ending();
    });
    Disposable connection = connect("");
    const Resolved resolved(serviceAt("/registry"), std::make_shared<FakeApi>());
    EXPECT_FALSE(answers->onNext(resolved));
    EXPECT_FALSE(answers->onNext(nullopt)) << "a service that goes away is news";
    EXPECT_FALSE(answers->onNext(resolved));
    answers->onError(Response::createErrorResponse(404, "none"));
    connection.dispose();
    EXPECT_THAT(heard, ElementsAre("client '/registry'", "absent", "client '/registry'", "404: none", "disposed"));

    EXPECT_CALL(runtime, trackAndResolveService("/registry/x", _)).Times(2);
    static_cast<void>(connect("x"));
    static_cast<void>(connect("/x"));
    EXPECT_CALL(runtime, trackAndResolveService("/registry", testing::IsNull()));
    static_cast<void>(connectServiceRegistryPex(runtime, nullptr));
}

TEST_F(ConnectTest, GoesToTheLocatorOfABypassedPath)
{
    const auto file = std::filesystem::temp_directory_path() / ("kesa_connect_" + std::to_string(getpid()) + ".json");
    std::ofstream(file) << R"({"backends": ["local"], "use_local_registry": true, "bypass": {"me": ["/registry/x"]}})";
    comm::SimulatedScheduler scheduler(1);
    comm::Scheduler::install(&scheduler);
    setenv("KESA_CONFIG", file.c_str(), 1);
    static_cast<void>(KesaRuntime::initInstance("me"));

    Handler<optional<Api>> answers;
    EXPECT_CALL(runtime, resolveService(testing::Matcher<const url&>(url("/registry/x")), _))
        .WillOnce([&](const url&, auto&& handler) {
            answers = std::move(handler);
            return Disposable();
        });
    static_cast<void>(connect("x"));
    EXPECT_CALL(runtime, trackAndResolveService("/registry", _));
    static_cast<void>(connect(""));
    KesaRuntime::shutdown();
    EXPECT_CALL(runtime, trackAndResolveService("/registry/x", _));
    static_cast<void>(connect("x"));

    unsetenv("KESA_CONFIG");
    comm::Scheduler::install(nullptr);
    std::filesystem::remove(file);
    EXPECT_FALSE(answers->onNext(Api(std::make_shared<FakeApi>())));
    EXPECT_FALSE(answers->onNext(nullopt));
    EXPECT_THAT(heard, ElementsAre("client ''", "absent"));
}

TEST_F(ConnectTest, RegistersAndEndsRequestsBeforeTheRegistration)
{
    using Service = std::shared_ptr<ServiceRegistryPexService>;
    const GenericObject metainfo{{"k", 1}};
    const auto handler = [] { return Handler<ServiceDef>(); };
    auto refused = std::make_unique<responsehandlers::FuncResponseHandler<ServiceDef>>(
        [](const ServiceDef&) { return false; },
        [&](const Response& error) { heard.push_back(Response::getErrorMessageWithCode(error)); }, [] {});
    registerServiceRegistryPex(nullptr, nullptr, std::move(refused)).dispose();
    EXPECT_THAT(std::exchange(heard, {}), ElementsAre("400: the runtime is null"));
    const struct {
        std::function<Disposable(const Service&)> call;
        std::string path;
        ServiceDef::TypeEnum type;
        GenericObject metainfo;
    } registrations[] = {
        {[&](const Service& service) {
             return registerServiceRegistryPex(&runtime, service, metainfo, handler(), "x");
         },
         "/registry/x", ServiceDef::TypeEnum::pex, metainfo},
        {[&](const Service& service) { return registerServiceRegistryPex(&runtime, service, handler()); }, "/registry",
         ServiceDef::TypeEnum::pex, GenericObject()},
        {[&](const Service& service) { return registerRegistry(runtime, service, metainfo, handler()); }, "/registry",
         ServiceDef::TypeEnum::registry, metainfo},
    };
    for (const auto& [call, path, type, info] : registrations) {
        Api api;
        EXPECT_CALL(runtime, registerService(path, _, type, ElementsAre("1.0.0"), info, _))
            .WillOnce([&](auto&, Api service, auto&&...) {
                api = std::move(service);
                return ending();
            });
        // The caller keeps nothing but the end of the registration.
        Disposable end = call(std::make_shared<ServiceRegistryPexService>(std::make_unique<FakeRegistry>(heard)));
        api->request(Request("retrieve", "/"), std::make_unique<NotingHandler<Response>>(heard));
        api.reset();
        end.dispose();
        end.dispose();
        EXPECT_THAT(std::exchange(heard, {}),
                    ElementsAre(HasSubstr("query"), HasSubstr("error 503"), "gone", "cancel 101", "disposed", "gone"));
    }
}

} // namespace
} // namespace kesa::serviceregistry::test
