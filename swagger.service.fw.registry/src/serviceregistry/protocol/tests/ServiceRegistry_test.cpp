// The registry's protocol, client and service back to back: what is sent, byte by byte, which call of the registry it
// becomes, how that answers, and what either side makes of what it cannot read.
#include "Fakes.h"

#include <json.h>
#include <kesa/headers.h>
#include <kesa/responsehandlers/FuncResponseHandler.h>
#include <kesa/serviceregistry/ServiceRegistryPexClient.h>
#include <kesa/serviceregistry/ServiceRegistryPexService.h>
#include <kesa/serviceregistry/WriteOnce.h>
#include <kesa/tracing.h>
#include <tracing/CapturingSink.h>

#include <functional>

namespace kesa::serviceregistry::test {
namespace {

using kesa::test::json;

class ServiceRegistryTest : public testing::Test {
protected:
    ServiceRegistryTest()
    {
        auto owned = std::make_unique<ScriptedRegistry>(calls, true);
        registry = owned.get();
        service = ServiceRegistryPexService::getService(std::make_shared<ServiceRegistryPexService>(std::move(owned)));
        wire = std::make_shared<PlayedService>(service);
    }
    ~ServiceRegistryTest() override { headers::setAuthTokenProvider({}); }

    void ask(const Request& request)
    {
        service->request(request, noteTexts(heard));
        EXPECT_FALSE(obr::ErrorStorage::isError()) << request.getPath();
    }

    Lines calls, heard;
    ScriptedRegistry* registry;
    std::shared_ptr<StaticComposedKesaService> service; ///< the only owner
    std::shared_ptr<PlayedService> wire;
};

TEST_F(ServiceRegistryTest, EachOperationHasItsFormOnTheWire)
{
    headers::setAuthTokenProvider([](std::string_view path) { return "token for " + std::string(path); });
    const auto tracking = [this](optional<bool> flag) {
        return [this, flag](IServiceRegistry& client) {
            return client.trackService(noting<RegistryUpdate>(heard), Path("/a/b"), flag);
        };
    };
    const struct {
        std::function<void*(IServiceRegistry&)> send;
        std::string command, path, body, call;
    } operations[] = {
        {tracking(nullopt), "retrieve", "/a/b", "{}", "track /a/b absent"},
        {tracking(false), "retrieve", "/a/b", R"({"includeMetaInfo":false})", "track /a/b false"},
        {[this](auto& client) { return client.queryRegistry(noting<Updates>(heard), Query("/media/**")); }, "retrieve",
         "/", R"({"pattern":"/media/**"})", R"(query /media/** {"pattern":"/media/**"})"},
        {[this](auto& client) {
             return client.registerService(noting<ServiceDef>(heard), Path("/a"), serviceAt("/a"));
         },
         "insert", "/a", jsonOf(serviceAt("/a")), "register /a " + jsonOf(serviceAt("/a"))},
        {[this](auto& client) { return client.explain(noting<GenericObject>(heard), Path("/a"), "me"); }, "explain",
         "/a", R"({"for":"me"})", "explain /a 'me'"},
    };
    for (const std::string_view format : {mimetypes::JSON, mimetypes::QELBIN}) {
        ServiceRegistryPexClient client(wire, std::string(format));
        for (const auto& [send, command, path, body, call] : operations) {
            void* const handle = send(*client.main());
            const Request& request = wire->requests.back();
            EXPECT_EQ(request.getCommand() + request.getPath(), command + path);
            EXPECT_EQ(request.getPayload().getMimeType(), format);
            if (format == mimetypes::JSON) {
                EXPECT_EQ(request.getPayload().text(), body);
            }
            EXPECT_EQ(request.getHeaders(),
                      (GenericObject{
                          {"$accept", format},
                          {"$service-path", "/registry"},
                          {"$trace-id", tracing::getTraceClientId()},
                          {"$auth-token", "token for /registry"},
                          {"$response-semantic", command == "explain" ? "single-response" : "persistent-stream"}}));
            client.main()->cancelRequest(handle);
            const std::string name = call.substr(0, call.find(' ', call.find('/')));
            EXPECT_THAT(std::exchange(calls, {}), ElementsAre(call, "cancel " + name));
            EXPECT_THAT(std::exchange(heard, {}), ElementsAre("~"));
        }
    }
}

TEST_F(ServiceRegistryTest, AnswersComeBackInTheFormatOfTheQuestion)
{
    for (const std::string_view format : {mimetypes::JSON, mimetypes::QELBIN, mimetypes::MSGPACK}) {
        ServiceRegistryPexClient wrapper(wire, std::string(format));
        IServiceRegistry& client = *wrapper.main();
        client.trackService(noting<RegistryUpdate>(heard), Path("/a"), true);
        client.queryRegistry(noting<Updates>(heard), Query("**"));
        client.registerService(noting<ServiceDef>(heard), Path("/a"), serviceAt("/a"));
        client.explain(noting<GenericObject>(heard), Path("/a"), "");
        EXPECT_FALSE(registry->tracking("/a").onNext(added("/a")));
        EXPECT_FALSE(registry->query("**").onNext({added("/a"), added("/b")}));
        EXPECT_FALSE(registry->registration("/a").onNext(serviceAt("/a")));
        EXPECT_FALSE(registry->explanation("/a").onNext(GenericObject{{"k", 1}}));
        registry->registration("/a").onError(Response::createErrorResponse(403, "no"));
        registry->explanation("/a").onCompleted();
        const std::string update = R"({"updateType":"ADDED","element":)" + jsonOf(serviceAt("/a")) + "}";
        EXPECT_THAT(std::exchange(heard, {}),
                    ElementsAre(update, "[" + update + "," + jsonOf(added("/b")) + "]", jsonOf(serviceAt("/a")),
                                R"({"k":1})", "403: no", "~", "done", "~"));
    }
    Request request("retrieve", "/a");
    headers::appendTracingInfo(request, "/registry", "me");
    request.setMimeType(std::string(mimetypes::QELBIN));
    std::vector<Response> answers;
    const auto keep = [&answers](const Response& answer) { return answers.push_back(answer), true; };
    service->request(request, std::make_unique<responsehandlers::FuncResponseHandler<Response>>(keep, keep, [] {}));
    EXPECT_TRUE(registry->tracking("/a").onNext(added("/a"))) << "what the client's handler says";
    registry->tracking("/a").onError(Response::createErrorResponse(403, "no"));
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0].getPayload().getMimeType(), mimetypes::QELBIN);
    for (const Response& answer : answers) {
        EXPECT_EQ(
            answer.getHeaders(),
            (GenericObject{{"$request-command", "retrieve"}, {"$request-path", "/a"}, {"$service-path", "/registry"}}));
    }
}

// Each gets what it would get alone, and those of a format and form the same bytes.
TEST_F(ServiceRegistryTest, AnUpdateForManyIsWrittenOncePerFormat)
{
    const auto all = std::make_shared<std::vector<Response>>(); // the last ones come when the service ends
    std::vector<Response>& answers = *all;
    const auto open = [&](const char* path, std::string_view format) {
        Request request("retrieve", path, Payload::createFromString(R"({"pattern":"**"})", mimetypes::JSON));
        request.setMimeType(std::string(format));
        const auto keep = [all](const Response& answer) { return all->push_back(answer), false; };
        service->request(request, std::make_unique<responsehandlers::FuncResponseHandler<Response>>(keep, keep, [] {}));
    };
    const auto tell = [&, first = added("/a")](const RegistryUpdate& update) {
        open("/a", mimetypes::JSON);
        EXPECT_FALSE(registry->tracking("/a").onNext(update));
        EXPECT_FALSE(registry->query("**").onNext({update}));
        EXPECT_FALSE(registry->query("**").onNext({update, first}));
        open("/a", mimetypes::MSGPACK);
        EXPECT_FALSE(registry->tracking("/a").onNext(update));
    };
    open("/", mimetypes::JSON);
    const RegistryUpdate updates[] = {
        added("/a"), added("/b"), {RegistryUpdate::UpdateTypeEnum::REMOVED, added("/a").element}};
    for (const RegistryUpdate& update : updates) {
        tell(update);
    }
    const std::vector<Response> alone = std::exchange(answers, {});
    WriteOnce shared;
    const WriteOnce::Use use(shared);
    for (const RegistryUpdate& update : updates) {
        tell(update);
        const std::size_t again = answers.size();
        tell(update);
        EXPECT_EQ(answers[again].getPayload().data(), answers[again - 4].getPayload().data());
    }
    for (std::size_t i = 0; i < answers.size(); ++i) {
        EXPECT_EQ(answers[i].getPayload().text(), alone[i / 8 * 4 + i % 4].getPayload().text()) << i;
        EXPECT_EQ(answers[i].getPayload().getMimeType(), alone[i / 8 * 4 + i % 4].getPayload().getMimeType()) << i;
    }
}

TEST_F(ServiceRegistryTest, ServesWhatOtherClientsMaySend)
{
    const struct {
        const char* command;
        const char* path;
        Payload body;
        std::string call;
    } requests[] = {
        {"retrieve", "/", {}, R"(query  {"pattern":""})"},
        {"retrieve", "/", json(R"({"scope":null,"pattern":"**"})"), R"(query ** {"pattern":"**"})"},
        {"retrieve", "/a/b", {}, "track /a/b absent"},
        {"retrieve", "/a/b", json(R"({"later":[{}],"includeMetaInfo":null})"), "track /a/b absent"},
        {"insert", "/a", {}, "register /a " + jsonOf(serviceAt(""))},
        {"insert", "/a", *serializer::toPayload(serviceAt("/a"), mimetypes::MSGPACK),
         "register /a " + jsonOf(serviceAt("/a"))},
        {"explain", "/a", {}, "explain /a ''"},
    };
    for (const auto& [command, path, body, call] : requests) {
        ask(Request(command, path, body));
        EXPECT_THAT(std::exchange(calls, {}), ElementsAre(call));
    }
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(ServiceRegistryTest, RefusesWithAStatusAReasonAndATrace)
{
    const struct {
        const char* command;
        const char* path;
        Payload body;
        std::string answer;
    } requests[] = {
        {"nonsense", "/a//b", {}, "404: command 'nonsense': '/a//b' is no path of a resource"},
        {"update", "/a", {}, "404: command 'update' is not served on path '/a'"},
        {"delete", "/", {}, "404: command 'delete' is not served on path '/'"},
        {"nonsense", "/a", {}, "400: command 'nonsense' is not served on path '/a'"},
        {"insert", "/", json(jsonOf(serviceAt("/"))),
         "400: ServiceRegistryService::registerService: no service path can be derived from the path of the request"},
        {"insert", "/a", json(R"({"path":"/a","type":"pex","versions":[]})"),
         "400: Cannot build ServiceDef, some of required attributes are not set: Locators "},
        {"retrieve", "/", Payload::createFromString("x", "text/html"),
         "400: no serializer for the mime type 'text/html'; known are application/json, application/vnd.msgpack and "
         "application/vnd.qelbin"},
    };
    const ::tracing::TraceCapture traces("KESA_SERVICEREGISTRY_SERVICEREGISTRYSERVICE");
    const std::string head = "4 [actionRequest] failed: cmd='";
    for (const auto& [command, path, body, answer] : requests) {
        ask(Request(command, path, body));
        EXPECT_THAT(std::exchange(heard, {}), ElementsAre(answer, "~"));
        const bool isNoPath = answer.find("no path of a resource") != std::string::npos;
        EXPECT_THAT(traces.take(), ElementsAre(head + command + "' path='" + path + "' reason='" +
                                               (isNoPath ? "" : answer.substr(5)) + "'"));
    }
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ServiceRegistryTest, WhatCannotBeWrittenIsToldWithTheReason)
{
    ServiceDef broken = serviceAt("/a");
    broken.type = static_cast<ServiceDef::TypeEnum>(4);
    ServiceRegistryPexClient client(wire, "application/json");
    auto kept = noting<ServiceDef>(heard);
    EXPECT_EQ(client.main()->registerService(std::move(kept), Path("/a"), broken), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    EXPECT_TRUE(kept) << "stays with the caller";
    EXPECT_THAT(heard, ElementsAre(HasSubstr("400: there is no such type of service")));
    EXPECT_FALSE(obr::ErrorStorage::isError());
    EXPECT_THAT(wire->requests, IsEmpty());

    ask(Request("retrieve", "/"));
    EXPECT_TRUE(registry->query("").onNext({RegistryUpdate()}));
    EXPECT_EQ(obr::ErrorStorage::reason(), "operation queryRegistry: serialization error");
    EXPECT_FALSE(registry->query("").onNext({})) << "the stream goes on";
    ask(Request("retrieve", "/a"));
    EXPECT_TRUE(registry->tracking("/a").onNext(RegistryUpdate()));
    EXPECT_EQ(obr::ErrorStorage::reason(), "operation trackService: serialization error");
    ask(Request("insert", "/a", json(jsonOf(serviceAt("/a")))));
    EXPECT_TRUE(registry->registration("/a").onNext(broken));
    EXPECT_EQ(obr::ErrorStorage::reason(), "operation registerService: serialization error");
}

TEST_F(ServiceRegistryTest, AClientDropsWhatItCannotReadAndGoesOn)
{
    const auto other = std::make_shared<PlayedService>();
    ServiceRegistryPexClient wrapper(other, "application/json");
    IServiceRegistry& client = *wrapper.main();
    client.trackService(noting<RegistryUpdate>(heard), Path("/a"), nullopt);
    client.queryRegistry(noting<Updates>(heard), Query("**"));
    client.registerService(noting<ServiceDef>(heard), Path("/a"), serviceAt("/a"));
    const std::string good[] = {jsonOf(added("/a")), "[" + jsonOf(added("/a")) + "]", jsonOf(serviceAt("/a"))};
    const char* const types[] = {"'RegistryUpdate'", "'std::vector<RegistryUpdate>'", "'ServiceDef'"};
    for (std::size_t i = 0; i < std::size(good); ++i) {
        IResponseHandler<Response>& answers = *other->handlers[i];
        EXPECT_TRUE(answers.onNext(Response(200, json(R"({"path":1})"))));
        EXPECT_THAT(obr::ErrorStorage::reason(), HasSubstr(types[i]));
        EXPECT_TRUE(answers.onNext(Response(200, json(good[i].substr(1)))));
        EXPECT_TRUE(answers.onNext(Response(200, Payload())));
        EXPECT_THAT(obr::ErrorStorage::reason(), HasSubstr("no serializer for the mime type ''"));
        EXPECT_FALSE(answers.onNext(Response(200, json(good[i]))));
        EXPECT_FALSE(obr::ErrorStorage::isError());
        EXPECT_THAT(std::exchange(heard, {}), ElementsAre(good[i]));
    }
}

TEST_F(ServiceRegistryTest, WithoutARegistryNothingIsServed)
{
    const auto empty = std::make_shared<ServiceRegistryPexService>(nullptr);
    ServiceRegistryPexClient client(ServiceRegistryPexService::getService(empty), "application/json");
    client.main()->queryRegistry(noting<Updates>(heard), Query("**"));
    EXPECT_THAT(heard, ElementsAre(HasSubstr("404"), "~"));
}

TEST_F(ServiceRegistryTest, AResolvedClientSpeaksTheFormatOfItsDefinition)
{
    ServiceDef definition = serviceAt("/registry");
    definition.serializationFormats = std::vector<std::string>{"text/html", std::string(mimetypes::QELBIN)};
    ServiceRegistryPexClient resolved(runtime::v02::ResolveResult<std::shared_ptr<IKesaApi>>(definition, wire));
    EXPECT_TRUE(resolved.getDefinition() == definition);
    resolved.main()->queryRegistry(noting<Updates>(heard), Query("**"));
    EXPECT_EQ(wire->requests.back().getPayload().getMimeType(), mimetypes::QELBIN);
    EXPECT_TRUE(ServiceRegistryPexClient(wire, "application/json").getDefinition() == serviceAt("/unknown"));
}

} // namespace
} // namespace kesa::serviceregistry::test
