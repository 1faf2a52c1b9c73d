// The client's wrapper on one side and the service's on the other, back to back.
#include "Fakes.h"

#include <kesa/serviceregistry/ServiceRegistryPexClient.h>
#include <kesa/serviceregistry/ServiceRegistryPexService.h>

namespace kesa::serviceregistry::test {
namespace {

class WrappersTest : public testing::Test {
protected:
    WrappersTest()
    {
        auto owned = std::make_unique<FakeRegistry>(calls);
        registry = owned.get();
        service = ServiceRegistryPexService::getService(std::make_shared<ServiceRegistryPexService>(std::move(owned)));
    }
    template <class T>
    std::unique_ptr<IResponseHandler<T>> handler()
    {
        return std::make_unique<NotingHandler<T>>(heard);
    }

    Lines calls, heard;
    FakeRegistry* registry;
    std::shared_ptr<StaticComposedKesaService> service; ///< the only owner
};

TEST_F(WrappersTest, ACancelledRequestHearsNothingMore)
{
    ServiceRegistryPexClient wrapper(service, "application/json");
    IServiceRegistry& client = *wrapper.main();
    void* const handle = client.registerService(handler<ServiceDef>(), Path("/a"), serviceAt("/a"));
    registry->registrations.back()->onNext(serviceAt("/a"));
    for (void* const each : {handle, handle, IKesaApi::UNDEFINED_REQUEST_HANDLE}) {
        client.cancelRequest(each);
    }
    EXPECT_TRUE(registry->registrations.back()->onNext(serviceAt("/a")));
    EXPECT_THAT(calls, ElementsAre("register /a " + jsonOfService("/a"), "cancel 101"));
    EXPECT_THAT(heard, ElementsAre(jsonOfService("/a"), "gone"));
}

// A registry that ends politely must not complete its clients' streams: to a registration that is the end of the
// process.
TEST_F(WrappersTest, EndEveryRequestWith503BeforeAnyIsCancelled)
{
    ServiceRegistryPexClient wrapper(service, "application/json");
    const auto ask = [&] {
        return wrapper.main()->queryRegistry(std::make_unique<NotingHandler<Updates>>(calls), Query("**"));
    };
    ask();
    ask();
    calls.clear();
    service->endOutstandingRequests();
    const std::string ended = "error 503: the service has ended";
    EXPECT_THAT(std::exchange(calls, {}), ElementsAre(ended, "gone", ended, "gone", "cancel 101", "cancel 102"));
    EXPECT_EQ(ask(), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    EXPECT_THAT(calls, ElementsAre(HasSubstr("error 503"), "gone"));
}

TEST_F(WrappersTest, WithoutARegistryNothingIsServed)
{
    const auto empty = std::make_shared<ServiceRegistryPexService>(nullptr);
    EXPECT_EQ(empty->main(), nullptr);
    ServiceRegistryPexClient client(ServiceRegistryPexService::getService(empty), "application/json");
    client.main()->queryRegistry(handler<Updates>(), Query("**"));
    EXPECT_THAT(heard, ElementsAre(HasSubstr("error 404"), "gone"));
}

TEST_F(WrappersTest, ClientsKnowTheirDefinitionAndTalkItsFormat)
{
    const auto api = std::make_shared<FakeApi>();
    ServiceDef definition = serviceAt("/registry");
    definition.serializationFormats = std::vector<std::string>{"text/html", std::string(mimetypes::QELBIN)};
    ServiceRegistryPexClient resolved(runtime::v02::ResolveResult<std::shared_ptr<IKesaApi>>(definition, api));
    EXPECT_TRUE(resolved.getDefinition() == definition);
    resolved.main()->queryRegistry(handler<Updates>(), Query("**"));
    EXPECT_EQ(api->sent.back().request.getPayload().getMimeType(), mimetypes::QELBIN);

    const ServiceRegistryPexClient plain(api, "application/json");
    EXPECT_TRUE(plain.getDefinition() == serviceAt("/unknown"));
    EXPECT_THAT(ServiceRegistryPex::ALL_SERVICE_VERSIONS, ElementsAre("1.0.0"));
    EXPECT_THAT(ServiceRegistryPex::ADDITIONAL_SERVICE_VERSIONS, IsEmpty());
}

} // namespace
} // namespace kesa::serviceregistry::test
