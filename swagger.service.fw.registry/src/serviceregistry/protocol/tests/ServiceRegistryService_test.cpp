// The dispatcher: which call each request becomes, what each bad one is told, and the form of the answers.
#include "Fakes.h"

#include <kesa/headers.h>
#include <kesa/responsehandlers/FuncResponseHandler.h>
#include <kesa/serviceregistry/ServiceRegistryService.h>
#include <tracing/CapturingSink.h>

namespace kesa::serviceregistry::test {
namespace {

class ServiceRegistryServiceTest : public testing::Test {
protected:
    ServiceRegistryServiceTest() { ::tracing::setSink(traces); }
    ~ServiceRegistryServiceTest() override { ::tracing::setSink(nullptr); }

    void* ask(const Request& request, const std::string& dispatch = "/")
    {
        void* const handle = service.actionRequest(request, std::make_unique<NotingHandler<Response>>(heard), dispatch);
        EXPECT_FALSE(obr::ErrorStorage::isError()) << request.getPath();
        return handle;
    }

    Lines calls, heard;
    FakeRegistry registry{calls};
    ServiceRegistryService service{&registry};
    std::shared_ptr<::tracing::CapturingSink> traces = std::make_shared<::tracing::CapturingSink>();
};

Payload json(std::string text)
{
    return Payload::createFromString(std::move(text), mimetypes::JSON);
}

TEST_F(ServiceRegistryServiceTest, CallsTheRegistry)
{
    const struct {
        const char* command;
        const char* path;
        Payload body;
        std::string call;
    } requests[] = {
        {"retrieve", "/", {}, R"(query {"pattern":""})"},
        {"retrieve", "/", json(R"({"scope":null,"pattern":"**"})"), R"(query {"pattern":"**"})"},
        {"retrieve", "/", *serializer::toPayload(Query("**"), mimetypes::QELBIN), R"(query {"pattern":"**"})"},
        {"retrieve", "/a/b", {}, "track /a/b absent"},
        {"retrieve", "/a/b", json(R"({"includeMetaInfo":null})"), "track /a/b absent"},
        {"retrieve", "/a/b", json(R"({"later":[{}],"includeMetaInfo":true})"), "track /a/b true"},
        {"retrieve", "/a/b", Payload::createFromString("\xBF\x6FincludeMetaInfo\xF4\xFF", mimetypes::QELBIN),
         "track /a/b false"},
        {"insert", "/a", json(jsonOfService("/a")), "register /a " + jsonOfService("/a")},
        {"insert", "/a", *serializer::toPayload(serviceAt("/a"), mimetypes::MSGPACK),
         "register /a " + jsonOfService("/a")},
        {"insert", "/a", {}, "register /a " + jsonOfService("")},
        {"explain", "/a", {}, "explain /a ''"},
        {"explain", "/a", json(R"({"for":"media"})"), "explain /a 'media'"},
    };
    std::uintptr_t handle = 100;
    for (const auto& [command, path, body, call] : requests) {
        EXPECT_EQ(ask(Request(command, path, body)), handleOf(++handle));
        EXPECT_EQ(calls.back(), call);
    }
    EXPECT_EQ(calls.size(), std::size(requests));
    service.cancelRequest(handleOf(103));
    EXPECT_EQ(calls.back(), "cancel 103");
    EXPECT_THAT(heard, IsEmpty());
    EXPECT_THAT(traces->take(), IsEmpty());
}

TEST_F(ServiceRegistryServiceTest, RefusesWithAStatusAReasonAndATrace)
{
    const struct {
        const char* command;
        const char* path;
        Payload body;
        const char* dispatch;
        std::string answer;
    } requests[] = {
        {"retrieve", "a", {}, "/", "404: command 'retrieve': 'a' is no path of a resource"},
        {"retrieve", "", {}, "/", "404: command 'retrieve': '' is no path of a resource"},
        {"nonsense", "/a//b", {}, "/", "404: command 'nonsense': '/a//b' is no path of a resource"},
        {"update", "/a", {}, "/", "404: command 'update' is not served on path '/a'"},
        {"delete", "/a", {}, "/", "404: command 'delete' is not served on path '/a'"},
        {"delete", "/", {}, "/", "404: command 'delete' is not served on path '/'"},
        {"nonsense", "/a", {}, "/", "400: command 'nonsense' is not served on path '/a'"},
        {"retrieve",
         "/a",
         {},
         "",
         "400: ServiceRegistryService::trackService: no service path can be derived from the path of the request"},
        {"insert",
         "/a",
         {},
         "",
         "400: ServiceRegistryService::registerService: no service path can be derived from the path of the request"},
        {"insert", "/", json(jsonOfService("/")), "/",
         "400: ServiceRegistryService::registerService: no service path can be derived from the path of the request"},
        {"insert", "/a", json(R"({"path":"/a","type":"pex","versions":[]})"), "/",
         "400: Cannot build ServiceDef, some of required attributes are not set: Locators "},
        {"retrieve", "/", json("{}"), "/",
         "400: Cannot build Query, some of required attributes are not set: Pattern "},
        {"retrieve", "/", Payload::createFromString("x", "text/html"), "/",
         "400: no serializer for the mime type 'text/html'; known are application/json, application/vnd.msgpack and "
         "application/vnd.qelbin"},
    };
    const std::string head = "KESA_SERVICEREGISTRY_SERVICEREGISTRYSERVICE 4 [actionRequest] failed: cmd='";
    for (const auto& [command, path, body, dispatch, answer] : requests) {
        EXPECT_EQ(ask(Request(command, path, body), dispatch), IKesaApi::UNDEFINED_REQUEST_HANDLE);
        EXPECT_THAT(std::exchange(heard, {}), ElementsAre("error " + answer, "gone"));
        const bool isNoPath = answer.find("no path of a resource") != std::string::npos;
        EXPECT_THAT(traces->take(), ElementsAre(head + command + "' path='" + path + "' reason='" +
                                                (isNoPath ? "" : answer.substr(5)) + "'"));
    }
    for (const char* const broken : {"[]", "{", R"({"includeMetaInfo":1})", R"({"includeMetaInfo":true} x)"}) {
        ask(Request("retrieve", "/a", json(broken)));
        EXPECT_THAT(std::exchange(heard, {}), ElementsAre(HasSubstr("error 400: "), "gone")) << broken;
    }
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ServiceRegistryServiceTest, AnswersInTheFormatAskedForWithTheRequestsInformation)
{
    const std::pair<util::config::Value, std::string_view> formats[] = {
        {util::config::Value(), mimetypes::JSON},
        {mimetypes::QELBIN, mimetypes::QELBIN},
        {mimetypes::MSGPACK, mimetypes::JSON},
        {util::config::Value::Array{"text/html", mimetypes::QELBIN}, mimetypes::QELBIN},
    };
    for (const auto& [accept, format] : formats) {
        Request request("retrieve", "/a");
        headers::appendTracingInfo(request, "/registry", "me");
        request.setHeader("$accept", accept);
        std::vector<Response> answers;
        const auto keep = [&answers](const Response& answer) {
            answers.push_back(answer);
            return answers.size() == 2;
        };
        service.actionRequest(
            request, std::make_unique<responsehandlers::FuncResponseHandler<Response>>(keep, keep, [] {}), "/");
        IResponseHandler<RegistryUpdate>& tracking = *registry.trackings.back();
        EXPECT_FALSE(tracking.onNext(added("/a")));
        EXPECT_TRUE(tracking.onNext(added("/a"))) << "what the client's handler says";
        tracking.onError(Response::createErrorResponse(403, "no"));
        ASSERT_EQ(answers.size(), 3U);
        for (const Response& answer : answers) {
            const bool isError = &answer == &answers.back();
            EXPECT_EQ(answer.getStatus(), isError ? 403 : 200);
            EXPECT_EQ(answer.getHeaders(),
                      (GenericObject{
                          {"$request-command", "retrieve"}, {"$request-path", "/a"}, {"$service-path", "/registry"}}));
            EXPECT_EQ(answer.getPayload().getMimeType(), isError ? mimetypes::TEXT : format);
            EXPECT_EQ(answer.getPayload().text(), isError ? "no" : serializer::toPayload(added("/a"), format)->text());
        }
    }
}

TEST_F(ServiceRegistryServiceTest, SaysWhichResourcesItHasAndAsksNoRegistry)
{
    std::vector<Response> answers;
    const auto keep = [&answers](const Response& answer) {
        answers.push_back(answer);
        return false;
    };
    service.actionRequest(Request("retrieve", "/.well-known/resources"),
                          std::make_unique<responsehandlers::FuncResponseHandler<Response>>(
                              keep, keep, [this] { heard.emplace_back("completed"); }),
                          "/");
    ASSERT_EQ(answers.size(), 1U);
    util::config::Value list;
    ASSERT_FALSE(serializer::readPayload(answers[0].getPayload(), list));
    ASSERT_EQ(list.arraySize(), 4U);
    std::string before;
    for (const util::config::Value& resource : list.items()) {
        const std::string path = resource["resource"].toText() + ' ' + resource["command"].toText();
        EXPECT_LT(std::exchange(before, path), path) << "the order of docs/protocol.md";
        EXPECT_TRUE(resource["answers"] == "single" || resource["answers"] == "stream");
    }
    EXPECT_THAT(heard, ElementsAre("completed"));
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ServiceRegistryServiceTest, NamesTheOperationWhoseAnswerCannotBeWrittenAndGoesOn)
{
    ServiceDef broken = serviceAt("/a");
    broken.type = static_cast<ServiceDef::TypeEnum>(4);
    ask(Request("retrieve", "/"));
    EXPECT_TRUE(registry.queries.back()->onNext({RegistryUpdate()}));
    EXPECT_EQ(obr::ErrorStorage::reason(), "operation queryRegistry: serialization error");
    EXPECT_FALSE(registry.queries.back()->onNext({}));
    ask(Request("retrieve", "/a"));
    EXPECT_TRUE(registry.trackings.back()->onNext(RegistryUpdate()));
    EXPECT_EQ(obr::ErrorStorage::reason(), "operation trackService: serialization error");
    ask(Request("insert", "/a", json(jsonOfService("/a"))));
    EXPECT_TRUE(registry.registrations.back()->onNext(broken));
    EXPECT_EQ(obr::ErrorStorage::reason(), "operation registerService: serialization error");
    EXPECT_THAT(heard, ElementsAre("200 []"));
}

} // namespace
} // namespace kesa::serviceregistry::test
