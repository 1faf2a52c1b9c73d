// The client, byte by byte: what it sends, and what it makes of the answers.
#include "Fakes.h"

#include <kesa/headers.h>
#include <kesa/serviceregistry/ServiceRegistryClient.h>
#include <kesa/tracing.h>

#include <functional>

namespace kesa::serviceregistry::test {
namespace {

class ServiceRegistryClientTest : public testing::Test {
protected:
    ~ServiceRegistryClientTest() override { headers::setAuthTokenProvider({}); }

    template <class T>
    std::unique_ptr<IResponseHandler<T>> handler()
    {
        return std::make_unique<NotingHandler<T>>(heard);
    }
    void* query(IServiceRegistry& registry) { return registry.queryRegistry(handler<Updates>(), Query("/media/**")); }
    void* track(IServiceRegistry& registry, optional<bool> includeMetaInfo)
    {
        return registry.trackService(handler<RegistryUpdate>(), Path("/media/player"), includeMetaInfo);
    }
    void* registerService(IServiceRegistry& registry)
    {
        return registry.registerService(handler<ServiceDef>(), Path("/a"), serviceAt("/a"));
    }

    Lines heard;
    FakeApi api;
};

TEST_F(ServiceRegistryClientTest, SendsEachOperationInItsForm)
{
    headers::setAuthTokenProvider([](std::string_view service) { return "token for " + std::string(service); });
    const struct {
        std::function<void*(IServiceRegistry&)> call;
        const char* command;
        const char* path;
        const char* json;
        std::string qelbin;
    } operations[] = {
        {[this](auto& r) { return track(r, nullopt); }, "retrieve", "/media/player", "{}", "\xBF\xFF"},
        {[this](auto& r) { return track(r, false); }, "retrieve", "/media/player", R"({"includeMetaInfo":false})",
         "\xBF\x6FincludeMetaInfo\xF4\xFF"},
        {[this](auto& r) { return track(r, true); }, "retrieve", "/media/player", R"({"includeMetaInfo":true})",
         "\xBF\x6FincludeMetaInfo\xF5\xFF"},
        {[this](auto& r) { return query(r); }, "retrieve", "/", R"({"pattern":"/media/**"})",
         "\xBF\x67pattern\x69/media/**\xFF"},
        {[this](auto& r) { return registerService(r); }, "insert", "/a",
         R"({"path":"/a","type":"pex","versions":[],"locators":[]})",
         "\xBF\x64path\x62/a\x64type\x63pex\x68versions\x9F\xFF\x68locators\x9F\xFF\xFF"},
        {[this](auto& r) { return r.explain(handler<GenericObject>(), Path("/a"), "media"); }, "explain", "/a",
         R"({"for":"media"})",
         "\xBF\x63"
         "for\x65"
         "media\xFF"},
    };
    for (const std::string_view mimeType : {mimetypes::JSON, mimetypes::QELBIN}) {
        ServiceRegistryClient client(&api, std::string(mimeType));
        for (const auto& operation : operations) {
            void* const handle = operation.call(client);
            EXPECT_EQ(handle, handleOf(api.sent.size()));
            const Request& request = api.sent.back().request;
            EXPECT_EQ(request.getCommand(), operation.command);
            EXPECT_EQ(request.getPath(), operation.path);
            EXPECT_EQ(request.getPayload().getMimeType(), mimeType);
            EXPECT_EQ(request.getPayload().text(), mimeType == mimetypes::JSON ? operation.json : operation.qelbin);
            EXPECT_EQ(request.getHeaders(),
                      (GenericObject{{"$accept", mimeType},
                                     {"$service-path", "/registry"},
                                     {"$trace-id", tracing::getTraceClientId()},
                                     {"$auth-token", "token for /registry"},
                                     {"$response-semantic",
                                      request.getCommand() == "explain" ? "single-response" : "persistent-stream"}}));
        }
        client.cancelRequest(handleOf(7));
    }
    EXPECT_THAT(api.cancelled, ElementsAre(handleOf(7), handleOf(7)));
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(ServiceRegistryClientTest, TellsWhyABodyCannotBeWrittenAndLeavesTheHandler)
{
    ServiceDef broken = serviceAt("/a");
    broken.type = static_cast<ServiceDef::TypeEnum>(4);
    auto kept = handler<ServiceDef>();
    ServiceRegistryClient json(&api, "application/json");
    EXPECT_EQ(json.registerService(std::move(kept), Path("/a"), broken), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    EXPECT_TRUE(kept);
    EXPECT_THAT(heard, ElementsAre(HasSubstr("error 400: there is no such type of service")));
    EXPECT_FALSE(obr::ErrorStorage::isError());

    heard.clear();
    ServiceRegistryClient unknown(&api, "text/html");
    EXPECT_EQ(query(unknown), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    EXPECT_EQ(track(unknown, nullopt), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    const std::string noSerializer =
        "error 400: no serializer for the mime type 'text/html'; known are application/json, "
        "application/vnd.msgpack and application/vnd.qelbin";
    EXPECT_THAT(heard, ElementsAre(noSerializer, "gone", noSerializer, "gone"));
    EXPECT_FALSE(obr::ErrorStorage::isError());
    EXPECT_THAT(api.sent, IsEmpty());
}

TEST_F(ServiceRegistryClientTest, DropsWhatItCannotReadAndGoesOn)
{
    ServiceRegistryClient client(&api, "application/json");
    track(client, nullopt);
    query(client);
    registerService(client);
    const struct {
        Payload good;
        std::string heard;
        const char* typeName;
    } streams[] = {
        {*serializer::toPayload(added("/a"), mimetypes::QELBIN), jsonOfAdded("/a"), "'RegistryUpdate'"},
        {*serializer::toPayload(Updates{added("/a"), added("/b")}, mimetypes::JSON),
         "[" + jsonOfAdded("/a") + "," + jsonOfAdded("/b") + "]", "'std::vector<RegistryUpdate>'"},
        {*serializer::toPayload(serviceAt("/a"), mimetypes::MSGPACK), jsonOfService("/a"), "'ServiceDef'"},
    };
    for (std::size_t i = 0; i < std::size(streams); ++i) {
        const auto& [good, text, typeName] = streams[i];
        IResponseHandler<Response>& answers = *api.sent[i].answers;
        const struct {
            Payload payload;
            std::string reason;
        } unreadable[] = {
            {Payload::createFromString(R"({"path":1})", mimetypes::JSON), typeName},
            {Payload::createFromString(std::string(good.text().substr(0, good.size() - 1)), good.getMimeType()),
             typeName},
            {Payload::createFromString("x", "text/html"), "'text/html'"},
            {Payload(), "no serializer for the mime type ''"},
        };
        for (const auto& bad : unreadable) {
            EXPECT_TRUE(answers.onNext(Response(200, bad.payload)));
            EXPECT_THAT(obr::ErrorStorage::reason(), HasSubstr(bad.reason));
            EXPECT_THAT(heard, IsEmpty());
            EXPECT_FALSE(answers.onNext(Response(200, good))) << obr::ErrorStorage::reason();
            EXPECT_THAT(std::exchange(heard, {}), ElementsAre(text));
            EXPECT_FALSE(obr::ErrorStorage::isError());
        }
    }
    api.sent[0].answers->onError(Response::createErrorResponse(503, "lost"));
    api.sent[1].answers->onCompleted();
    EXPECT_THAT(heard, ElementsAre("error 503: lost", "completed"));
}

} // namespace
} // namespace kesa::serviceregistry::test
