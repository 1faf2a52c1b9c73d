#include <NotingHandler.h>
#include <json.h>
#include <kesa/RequestContext.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/asText.h>
#include <kesa/ease/get.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/resources.h>
#include <kesa/mimetypes.h>
#include <kesa/servicecomp.h>
#include <tracing/CapturingSink.h>

#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

namespace {

using namespace kesa;

std::string ask(IKesaApi& api, const std::string& command, const std::string& path)
{
    const GetResult result = get(api, Request(command, path), std::chrono::seconds(1));
    return result ? std::string(result.response->getPayload().text()) : result.error;
}

/// A path of up to three segments out of `from`; "**" ends it.
std::string draw(std::mt19937& random, const std::vector<std::string>& from)
{
    std::string path;
    for (auto length = random() % 3 + 1; length > 0 && !path.ends_with("**"); --length) {
        path += "/" + from[random() % from.size()];
    }
    return path;
}

/// Whether the route matches, and if so what is compared: segment by segment, text before parameter before "**".
std::optional<std::string> rankOf(const std::string& route, const std::string& path)
{
    std::istringstream wantedSegments(route.substr(1));
    std::istringstream segments(path.substr(1));
    std::string rank, segment;
    for (std::string wanted; std::getline(wantedSegments, wanted, '/');) {
        if (wanted == "**") {
            return rank + "2";
        }
        if (!std::getline(segments, segment, '/') || (wanted != "{x}" && wanted != segment)) {
            return std::nullopt;
        }
        rank += wanted == "{x}" ? '1' : '0';
    }
    return std::getline(segments, segment, '/') ? std::nullopt : std::optional(rank);
}

// Routes are drawn, a part of them for another command. What serves is compared with what the words of the header say.
TEST(ResourceHandler, OfAllRoutesThatMatchTheMostParticularOneForTheCommandServes)
{
    std::mt19937 random; // NOLINT: always the same
    for (int round = 0; round < 50; ++round) {
        ResourceHandler service;
        std::set<std::string> routes;
        for (int i = 0; i < 120; ++i) {
            const std::string route = draw(random, {"a", "b", "c" + std::to_string(i), "{x}", "**"});
            if (random() % 2 == 0) {
                service.onUpdate(route, [](const Request&) {});
            } else if (routes.insert(route).second) {
                service.onRetrieve(route, [route](const Request&) { return asText(route); });
            }
        }
        for (int i = 0; i < 100; ++i) {
            const std::string path = draw(random, {"a", "b", "c7", "c39"});
            std::pair<std::string, std::string> best{"none", ""};
            for (const std::string& route : routes) {
                if (const auto rank = rankOf(route, path)) {
                    best = std::min(best, std::pair(*rank, route));
                }
            }
            const std::string served = ask(service, "retrieve", path);
            EXPECT_EQ(served[0] == '4' ? "" : served, best.second) << path << " in round " << round;
        }
    }
}

TEST(ResourceHandler, ARouteNamesPartsOfThePath)
{
    ResourceHandler service;
    service
        .onRetrieve("/net/{x}/**",
                    [](const Request&, const PathParameters& path) {
                        return asText(std::string(path["x"]) + " " + std::string(path["**"]));
                    })
        .onUpdate("/net/{y}", [](const Request&, const PathParameters& path) { return asText(std::string(path["y"])); })
        .onRetrieve("/", [](const Request&) { return asText("root"); });
    EXPECT_EQ(ask(service, "retrieve", "/"), "root");
    EXPECT_EQ(ask(service, "retrieve", "/net/eth0/a/b"), "eth0 a/b");
    EXPECT_EQ(ask(service, "update", "/net/eth0"), "eth0") << "each command has its own names";
    EXPECT_EQ(ask(service, "retrieve", "/net/eth0"), "eth0 ");
}

TEST(ResourceHandler, AnswersWhatItsFunctionsReturn)
{
    ResourceHandler service;
    const auto answered = [&service](auto function, const char* accept = "application/json") {
        service.onRetrieve("/{name}", function);
        Request request("retrieve", "/lo");
        request.setMimeType(accept);
        const GetResult result = get(service, request, std::chrono::seconds(1));
        const Payload payload = result ? result.response->getPayload() : Payload();
        return result ? std::string(payload.getMimeType()) + ": " + std::string(payload.text()) : result.error;
    };
    const auto withPath = [uses = std::make_shared<int>()](const Request& request, const PathParameters& path) mutable {
        return GenericObject{{"of", path["name"]}, {"uses", ++*uses}, {"path", request.getPath()}};
    };
    const std::string title = "\"So What\"";
    EXPECT_EQ(answered(withPath), R"(application/json: {"of":"lo","path":"/lo","uses":1})");
    EXPECT_EQ(answered([](const Request&) { return 0.7F + 0.05F; }), "application/json: 0.75");
    EXPECT_EQ(answered([](const Request&) { return UINT64_MAX; }), "application/json: 18446744073709551615");
    EXPECT_EQ(answered([](const Request&) { return true; }), "application/json: true");
    EXPECT_EQ(answered([](const Request&) { return "a \"b\""; }), R"(application/json: "a \"b\"")");
    EXPECT_EQ(answered([&](const Request&) { return std::string_view(title).substr(4, 4); }),
              R"(application/json: "What")");
    EXPECT_EQ(answered([](const Request&) {
                  return util::config::Value(util::config::Value::Array{1, nullptr});
              }),
              "application/json: [1,null]");
    EXPECT_EQ(answered([&title](const Request&) -> const std::string& { return title; }),
              R"(application/json: "\"So What\"")");
    EXPECT_EQ(answered([](const Request&) { return asText("7"); }), "plain/text: 7");
    EXPECT_EQ(answered([](const Request&) { return Response(201, asText("made")); }), "plain/text: made");
    EXPECT_EQ(answered([](const Request&) { return Response::createErrorResponse(410, "gone"); }), "410: gone");
    EXPECT_EQ(answered([](const Request&) {}), ": ");
    EXPECT_EQ(answered([](const Request&) { return util::config::Value(); }),
              "500: the value has no form in application/json: a value that is not defined can not be written");

    servicecomp::overrideMimeTypeFunc([](const Request& r) { return std::string(r.getMimeTypeHeader().stringView()); });
    EXPECT_EQ(answered([](const Request&) { return "a"; }, "application/vnd.msgpack"),
              "application/vnd.msgpack: \241a");
    servicecomp::overrideMimeTypeFunc({});
}

TEST(ResourceHandler, ReadsBodiesOrSaysWhatIsWrongWithThem)
{
    ResourceHandler service;
    service.onUpdate("/", [](const Request& request) { return asText(std::to_string(body<std::uint8_t>(request))); });
    const auto read = [&service](const Payload& body) {
        const GetResult result = get(service, Request("update", "/", body), std::chrono::seconds(1));
        return result ? std::string(result.response->getPayload().text()) : result.error;
    };
    const std::string refused = "400: the body can not be read: ";
    EXPECT_EQ(read(asPayload(255)), "255");
    EXPECT_EQ(read(asPayload(-1, mimetypes::QELBIN)), refused + "-1 is no integer from 0 to 255");
    EXPECT_EQ(read(asPayload("7")), refused + "a number is expected");
    EXPECT_EQ(read(test::json("7 8")), refused + "1:3: unexpected text after the end of the document");
    EXPECT_EQ(read({}), "400: the body is empty");
    EXPECT_THAT(read(asText("7")), testing::StartsWith(refused + "no serializer for the mime type 'plain/text'"));

    const Response answer(200, test::json(R"({"a":[1,{"b":null}]})"));
    EXPECT_EQ(asPayload(body<util::config::Value>(answer)).text(), answer.getPayload().text());
    EXPECT_EQ(body<std::string>(Request("", "", asText("a"))), "a");
    EXPECT_THROW(static_cast<void>(body<bool>(answer)), std::runtime_error);
    EXPECT_THROW(static_cast<void>(asPayload("\xff")), std::runtime_error);
}

TEST(ResourceHandler, SaysWhatItDoesNotServe)
{
    ResourceHandler service;
    service.onRetrieve("/cpu", [](const Request&) { return 1; })
        .onUpdate("/cpu", [](const Request&, Responder responder) { responder.fail(400, "no"); });
    EXPECT_EQ(ask(service, "retrieve", "/memory"), "404: no resource at '/memory'");
    EXPECT_EQ(ask(service, "delete", "/cpu"), "405: '/cpu' does not serve 'delete'; it serves 'retrieve', 'update'");
    EXPECT_EQ(ask(service, "update", "/cpu"), "400: no");
    // A broad route for the command helps out where the particular one has none.
    service.onDelete("/{x}", [](const Request&) { return asText("gone"); });
    EXPECT_EQ(ask(service, "delete", "/cpu"), "gone");
    EXPECT_EQ(ask(service, "ping", "/cpu"),
              "405: '/cpu' does not serve 'ping'; it serves 'retrieve', 'update', 'delete'");

    // Refused routes serve nothing, and say so.
    const ::tracing::TraceCapture traces("KESA_EASE");
    for (const char* route : {"/**/a", "/a//b", "/{x", "/a{x}", "/{}"}) {
        service.onInsert(route, [](const Request&) {});
        EXPECT_THAT(traces.take(),
                    testing::ElementsAre(testing::HasSubstr("route 'insert " + std::string(route) + "' is refused: ")));
    }
    EXPECT_EQ(ask(service, "insert", "/x/a"), "404: no resource at '/x/a'");

    ResourceHandler other;
    for (const char* route : {"/", "/net/{interface}/received", "/file/{name}", "/log/**"}) {
        other.onRetrieve(route, [](const Request&) {});
    }
    const std::pair<std::string, std::string> nearest[] = {{"/nte/eth0/received", "/net/eth0/received"},
                                                           {"/file", "/file/{name}"},
                                                           {"/file/a/b", "/file/a"},
                                                           {"/lgo/2026/may", "/log/2026/may"}};
    for (const auto& [path, route] : nearest) {
        EXPECT_EQ(ask(other, "retrieve", path), "404: no resource at '" + path + "'; did you mean '" + route + "'?");
    }
}

TEST(ResourceHandler, SaysWhichRoutesItHas)
{
    const ::tracing::TraceCapture traces("KESA_EASE");
    ResourceHandler service;
    const std::string path(resources::PATH);
    EXPECT_EQ(ask(service, "retrieve", path), "[]");
    const auto answer = [](const Request&) { return asText("own"); };
    service.onUpdate("hello/{name}/", answer, about("sets").body(R"({ "type": "string" })").answer("{torn"))
        .onRetrieve("/hello/{name}", answer, about("greets").stream().answer("true"))
        .onRetrieve("/.well-known/{x}", answer)
        .onRetrieve("**", answer);
    EXPECT_THAT(traces.take(), testing::ElementsAre(testing::HasSubstr(
                                   "the schema of the answer of 'sets' is left out, since it is no JSON: 1:2:")));
    EXPECT_EQ(
        ask(service, "retrieve", path),
        R"([{"answers":"single","command":"retrieve","resource":"/**"},)"
        R"({"answers":"single","command":"retrieve","resource":"/.well-known/{x}"},)"
        R"({"answer":true,"answers":"stream","command":"retrieve","resource":"/hello/{name}","text":"greets"},)"
        R"({"answers":"single","body":{"type":"string"},"command":"update","resource":"/hello/{name}","text":"sets"}])");
    EXPECT_EQ(
        get(service, Request(commands::RETRIEVE, path), std::chrono::seconds(1)).response->getPayload().getMimeType(),
        mimetypes::JSON);
    EXPECT_THAT(ask(service, "insert", path), testing::StartsWith("405"));

    const std::string list = ask(service, "retrieve", path);
    service.onRetrieve("/bad", answer, about("\xff"));
    service.onRetrieve("/deep", answer, RouteInfo().answer(std::string(127, '[') + std::string(127, ']')));
    EXPECT_EQ(ask(service, "retrieve", path), list) << "what cannot be told hides nothing else";
    service.onRetrieve(path, answer);
    EXPECT_EQ(ask(service, "retrieve", path), "own");
}

/// Somebody of another process.
class Asker {
public:
    Asker(std::int64_t uid, std::int64_t pid) : m_context(contextOf(uid, pid)) {}
    std::string ask(IKesaApi& api, const std::string& command, const std::string& path, const std::string& body = {})
    {
        const RequestContext::Scope scope(&m_context);
        const Request request(command, path, Payload::createFromString(body, mimetypes::JSON));
        const GetResult result = get(api, request, std::chrono::seconds(1));
        return result ? std::string(result.response->getPayload().text()) : result.error;
    }

private:
    static RequestContext contextOf(std::int64_t uid, std::int64_t pid)
    {
        RequestContext context;
        context.process = "asker";
        context.uid = context.gid = uid;
        context.pid = pid;
        return context;
    }
    const RequestContext m_context;
};

TEST(ResourceHandler, SaysWhatItsRulesLetSomebodyDo)
{
    ResourceHandler service;
    const std::string question = R"({"uid":65001,"gid":65001,"command":"update","resource":"/volume"})";
    const std::string path = "/.well-known/access";
    EXPECT_EQ(Asker(65001, 10).ask(service, "retrieve", path, question), R"({"allowed":true,"because":""})");
    service.allow(R"([{"user": 65001, "may": "update", "resources": "/volume"}])");
    const std::string may = Asker(65001, 10).ask(service, "retrieve", path, question);
    EXPECT_THAT(may, testing::HasSubstr("): user 65001 may update /volume"));
    EXPECT_EQ(Asker(0, 11).ask(service, "retrieve", path, question), may);
    EXPECT_EQ(Asker(65002, 12).ask(service, "retrieve", path, question).substr(0, 4), "403:");
    EXPECT_THAT(
        Asker(0, 11).ask(service, "retrieve", path, R"({"uid":65002,"gid":1,"command":"update"})"),
        testing::HasSubstr(R"("allowed":false,"because":"no rule of the service's code lets user 65002 update: )"
                           "rule 1 (ResourceHandler_test.cpp:"));
    EXPECT_EQ(Asker(0, 11).ask(service, "retrieve", path, "7").substr(0, 4), "400:");
}

TEST(ResourceHandler, ARuleThatIsNoneClosesTheServiceToOthers)
{
    for (const std::string rule : {R"({"may": "retreive"})", R"({"may": "*", "paths": "/**"})", "{", "7", "[]",
                                   R"({"may": "*", "process": "nav"})", R"({"may": "*", "may": "retrieve"})"}) {
        const ::tracing::TraceCapture traces("KESA_EASE");
        ResourceHandler service;
        service.onRetrieve("/", [](const Request&) { return asText("served"); });
        service.allow(rule).allow(R"({"may": "*"})");
        EXPECT_THAT(traces.take().at(0), testing::HasSubstr("4 [ResourceHandler] a service is closed to other users, "
                                                            "since a rule of it is none: ResourceHandler_test.cpp:"))
            << rule;
        EXPECT_THAT(Asker(65001, 10).ask(service, "retrieve", "/"), testing::HasSubstr("until this is mended"));
        EXPECT_EQ(Asker(0, 10).ask(service, "retrieve", "/"), "served");
    }
}

TEST(ResourceHandler, AServiceWrittenByHandSaysItLikewise)
{
    class Mixer : public IKesaApi {
    public:
        void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
        {
            if (resources::areAskedBy(request)) {
                return resources::tell(*handler, {{"/volume", commands::UPDATE, about("in percent")},
                                                  {"/volume", commands::RETRIEVE, RouteInfo().stream()},
                                                  {"/mute", commands::UPDATE}});
            }
            handler->onError(Response::createErrorResponse(404));
            return UNDEFINED_REQUEST_HANDLE;
        }
        void cancel(void*) override {}
    };
    Mixer mixer;
    const std::string path(resources::PATH);
    EXPECT_EQ(ask(mixer, "retrieve", path),
              R"([{"answers":"single","command":"update","resource":"/mute"},)"
              R"({"answers":"stream","command":"retrieve","resource":"/volume"},)"
              R"({"answers":"single","command":"update","resource":"/volume","text":"in percent"}])");
    EXPECT_EQ(ask(mixer, "update", path), "404");
    EXPECT_EQ(ask(mixer, "retrieve", "/volume"), "404");
}

TEST(ResourceHandler, AnExceptionEndsItsRequestOnly)
{
    const ::tracing::TraceCapture traces("KESA_EASE");
    ResourceHandler service;
    std::vector<Responder> kept;
    service
        .onRetrieve("/number/{text}",
                    [](const Request&, const PathParameters& path) { return std::stoi(std::string(path["text"])); })
        .onRetrieve("/odd", [](const Request&, Responder) { throw 7; })
        .onRetrieve("/fine", [](const Request&) { throw RequestError(200, "fine"); })
        .onRetrieve("/refused", [](const Request&) -> int { throw RequestError(409, "nothing to play"); })
        .onRetrieve("/late",
                    [](const Request&, Responder responder) {
                        responder.answer(asText("answered"));
                        throw RequestError(409, "after the end");
                    })
        .onRetrieve("/kept", [&kept](const Request&, Responder responder) {
            static_cast<void>(responder.next(asText("first")));
            kept.push_back(std::move(responder));
            throw std::runtime_error("left");
        });
    EXPECT_EQ(ask(service, "retrieve", "/number/x"), "500: stoi");
    EXPECT_EQ(ask(service, "retrieve", "/odd"), "500: an exception that is no std::exception");
    EXPECT_EQ(ask(service, "retrieve", "/fine"), "500: RequestError of status 200: fine");
    EXPECT_EQ(ask(service, "retrieve", "/refused"), "409: nothing to play");
    EXPECT_EQ(ask(service, "retrieve", "/number/3"), "3");

    std::vector<std::string> got;
    for (const char* path : {"/late", "/kept"}) {
        service.request(Request("retrieve", path), test::noteTexts(got));
    }
    EXPECT_TRUE(kept.front().isCancelled() && kept.front().next(asText("second")));
    kept.clear();
    EXPECT_THAT(got, testing::ElementsAre("answered", "done", "~", "first", "500: left", "~"));
    EXPECT_THAT(traces.take(),
                testing::ElementsAre(testing::HasSubstr("'retrieve /number/x' has thrown: stoi"),
                                     testing::HasSubstr("'retrieve /odd'"), testing::HasSubstr("'retrieve /fine'"),
                                     testing::HasSubstr("left")));
}

// That nothing comes after an end is proven where requests are kept, for all services.
TEST(ResourceHandler, StreamsUntilCancelledOrEnded)
{
    auto service = std::make_unique<ResourceHandler>();
    std::optional<Responder> kept;
    service->onRetrieve("/load", [&kept](const Request&, Responder responder) { kept = std::move(responder); });
    std::vector<std::string> got;
    const auto start = [&] { return service->request(Request("retrieve", "/load"), test::noteTexts(got)); };
    void* const first = start();
    EXPECT_FALSE(kept->next(asText("1")) || kept->isCancelled());
    service->cancel(first);
    EXPECT_TRUE(kept->isCancelled() && kept->next(asText("2")));
    start();
    kept->complete();
    start();
    kept.reset();
    start();
    service.reset();
    EXPECT_TRUE(kept->isCancelled());
    EXPECT_THAT(got, testing::ElementsAre("1", "~", "done", "~", testing::StartsWith("503"), "~",
                                          "503: the service has ended", "~"));
}

TEST(Handler, TakesValuesAsItsFunctionSays)
{
    const auto refusing = handler<int>([most = std::make_unique<int>(2)](const int& value) { return value > *most; });
    EXPECT_FALSE(refusing->onNext(2));
    EXPECT_TRUE(refusing->onNext(3));
    refusing->onCompleted();
    EXPECT_TRUE(refusing->onNext(1)) << "ended";
    handler<int>([](const int&) {})->onError(Response::createErrorResponse(404));
}

} // namespace
