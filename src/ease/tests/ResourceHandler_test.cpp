#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/asText.h>
#include <kesa/ease/get.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/resources.h>
#include <kesa/mimetypes.h>
#include <kesa/servicecomp.h>
#include <tracing/CapturingSink.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>

namespace {

using namespace kesa;

std::string ask(IKesaApi& api, const std::string& command, const std::string& path)
{
    const GetResult result = get(api, Request(command, path), std::chrono::seconds(1));
    return result ? std::string(result.response->getPayload().text()) : result.error;
}

TEST(ResourceHandler, TheMostParticularRouteServes)
{
    ResourceHandler service;
    const auto answer = [](const char* name) {
        return [name](const Request&, const PathParameters& path) {
            return asText(std::string(name) + " " + std::string(path["x"]) + " " + std::string(path["**"]));
        };
    };
    service.onRetrieve("**", answer("rest"))
        .onRetrieve("/net/{x}", answer("one"))
        .onRetrieve("/net/lo", answer("lo"))
        .onRetrieve("/net/{x}/**", answer("below"))
        .onRetrieve("/{x}/lo", answer("any"))
        .onRetrieve("/", [](const Request&) { return asText("root"); });
    EXPECT_EQ(ask(service, "retrieve", "/"), "root");
    EXPECT_EQ(ask(service, "retrieve", "/net/lo"), "lo  ");
    EXPECT_EQ(ask(service, "retrieve", "/net/eth0"), "one eth0 ");
    EXPECT_EQ(ask(service, "retrieve", "/net/eth0/a/b"), "below eth0 a/b");
    EXPECT_EQ(ask(service, "retrieve", "/cpu/lo"), "any cpu ");
    EXPECT_EQ(ask(service, "retrieve", "/net"), "rest  net");
    EXPECT_EQ(ask(service, "retrieve", "/a/b/c"), "rest  a/b/c");
    service.onUpdate("/net/{y}",
                     [](const Request&, const PathParameters& path) { return asText(std::string(path["y"])); });
    EXPECT_EQ(ask(service, "update", "/net/eth0"), "eth0") << "each command has its own names";
    EXPECT_EQ(ask(service, "retrieve", "/net/eth0"), "one eth0 ");
}

/// The segments of a route or of a path.
std::vector<std::string> split(const std::string& path)
{
    std::vector<std::string> segments;
    for (std::size_t from = 0; from < path.size();) {
        const std::size_t end = std::min(path.find('/', from + 1), path.size());
        segments.push_back(path.substr(from + 1, end - from - 1));
        from = end;
    }
    return segments;
}

/// Whether it matches, and if so what is compared: the kinds of its segments, text before parameter before "**".
std::optional<std::vector<int>> rankOf(const std::vector<std::string>& route, const std::vector<std::string>& path)
{
    std::vector<int> rank;
    for (std::size_t i = 0; i < route.size(); ++i) {
        rank.push_back(route[i] == "**" ? 2 : route[i][0] == '{' ? 1 : 0);
        if (rank.back() == 2) {
            return rank;
        }
        if (i >= path.size() || (rank.back() == 0 && route[i] != path[i])) {
            return std::nullopt;
        }
    }
    return route.size() == path.size() ? std::optional(rank) : std::nullopt;
}

// All routes of up to three segments out of few, and a crowd beside them, in an order that is drawn; a part of them
// serves another command. What serves is compared with what the words of the header say.
TEST(ResourceHandler, OfAllRoutesThatMatchTheMostParticularOneForTheCommandServes)
{
    std::vector<std::string> routes;
    std::vector<std::string> paths;
    const auto extend = [](std::vector<std::string>& all, const std::vector<std::string>& by) {
        std::vector<std::string> longer{""};
        for (int length = 0; length < 3; ++length) {
            for (const std::string& start : std::exchange(longer, {})) {
                for (const std::string& segment : by) {
                    longer.push_back(start + "/" + segment);
                }
            }
            all.insert(all.end(), longer.begin(), longer.end());
        }
    };
    extend(routes, {"a", "b", "{x}", "**"});
    std::erase_if(routes, [](const std::string& route) {
        return route.find("**/") != std::string::npos; // is none
    });
    for (int i = 0; i < 40; ++i) {
        routes.push_back("/c" + std::to_string(i) + "/{x}");
    }
    extend(paths, {"a", "b", "c7", "c39"});
    std::uint64_t drawn = 1;
    const auto draw = [&drawn](std::size_t limit) {
        return ((drawn = drawn * 6364136223846793005U + 1) >> 33) % limit;
    };
    for (int round = 0; round < 10; ++round) {
        ResourceHandler service;
        std::vector<std::string> added;
        for (std::size_t i = routes.size(); i > 0; --i) {
            std::swap(routes[i - 1], routes[draw(i)]);
            const std::string route = routes[i - 1];
            if (draw(3) == 0) {
                service.onRetrieve(route, [route](const Request&) { return asText(route); });
                added.push_back(route);
            } else if (draw(2) == 0) {
                service.onUpdate(route, [](const Request&) {});
            }
        }
        for (const std::string& path : paths) {
            std::optional<std::vector<int>> best;
            std::string expected;
            for (const std::string& route : added) {
                const auto rank = rankOf(split(route), split(path));
                if (rank && (!best || *rank < *best)) {
                    best = rank;
                    expected = route;
                }
            }
            const std::string served = ask(service, "retrieve", path);
            EXPECT_EQ(served[0] == '4' ? "" : served, expected) << path << " in round " << round;
        }
    }
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
    const auto read = [&service](auto function, const Payload& body) {
        service.onUpdate("/", function);
        const GetResult result = get(service, Request("update", "/", body), std::chrono::seconds(1));
        return result ? "read" : result.error;
    };
    const auto json = [](const char* text) { return Payload::createFromString(text, mimetypes::JSON); };
    const auto number = [](const Request& request) { return static_cast<void>(body<std::uint8_t>(request)); };
    EXPECT_EQ(read(number, asPayload(255)), "read");
    EXPECT_EQ(read(number, asPayload(256)), "400: the body can not be read: 256 is no integer from 0 to 255");
    EXPECT_EQ(read(number, asPayload(-1, mimetypes::QELBIN)),
              "400: the body can not be read: -1 is no integer from 0 to 255");
    EXPECT_EQ(read(number, asPayload(7.5)), "400: the body can not be read: 7.5 is no integer from 0 to 255");
    EXPECT_EQ(read(number, asPayload("7")), "400: the body can not be read: a number is expected");
    EXPECT_EQ(read(number, json("7 8")),
              "400: the body can not be read: 1:3: unexpected text after the end of the document");
    EXPECT_EQ(read(number, {}), "400: the body is empty");
    EXPECT_EQ(read(number, asText("7")),
              "400: the body can not be read: no serializer for the mime type 'plain/text'; "
              "known are application/json, application/vnd.msgpack and application/vnd.qelbin");

    const Response answer(200, json(R"({"a":[1,{"b":null}]})"));
    EXPECT_EQ(asPayload(body<util::config::Value>(answer)).text(), answer.getPayload().text());
    EXPECT_EQ(body<std::string>(Request("", "", asPayload("a", mimetypes::MSGPACK))), "a");
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

    // Refused routes serve nothing.
    for (const char* route : {"/**/a", "/a//b", "/{x", "/a{x}", "/{}"}) {
        service.onInsert(route, [](const Request&) {});
    }
    EXPECT_EQ(ask(service, "insert", "/x/a"), "404: no resource at '/x/a'");
}

TEST(ResourceHandler, NamesTheNearestRoute)
{
    ResourceHandler service;
    for (const char* route : {"/", "/cpu/load", "/net/{interface}/received", "/file/{name}", "/log/**"}) {
        service.onRetrieve(route, [](const Request&) {});
    }
    const auto meant = [&service](const std::string& path) {
        const std::string answer = ask(service, "retrieve", path);
        const std::string start = "404: no resource at '" + path + "'";
        EXPECT_THAT(answer, testing::StartsWith(start));
        return answer.substr(start.size());
    };
    EXPECT_EQ(meant("/cpu/laod"), "; did you mean '/cpu/load'?");
    EXPECT_EQ(meant("/nte/eth0/received"), "; did you mean '/net/eth0/received'?");
    EXPECT_EQ(meant("/file"), "; did you mean '/file/{name}'?");
    EXPECT_EQ(meant("/file/a/b"), "; did you mean '/file/a'?");
    EXPECT_EQ(meant("/lgo/2026/may"), "; did you mean '/log/2026/may'?");
    EXPECT_EQ(meant("/" + std::string(10000, 'x')), "");
}

TEST(ResourceHandler, SaysWhichRoutesItHas)
{
    const auto sink = std::make_shared<::tracing::CapturingSink>("KESA_EASE");
    ::tracing::setSink(sink);
    ResourceHandler service;
    const std::string path(resources::PATH);
    EXPECT_EQ(ask(service, "retrieve", path), "[]");
    const auto answer = [](const Request&) { return asText("own"); };
    service.onUpdate("hello/{name}/", answer, about("sets").body(R"({ "type": "string" })").answer("{torn"))
        .onRetrieve("/hello/{name}", answer, about("greets").stream().answer("true"))
        .onRetrieve("/.well-known/{x}", answer)
        .onRetrieve("**", answer);
    EXPECT_THAT(sink->take(), testing::ElementsAre(testing::HasSubstr(
                                  "the schema of the answer of 'sets' is left out, since it is no JSON: 1:2:")));
    ::tracing::setSink(nullptr);
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
    const auto sink = std::make_shared<::tracing::CapturingSink>("KESA_EASE");
    ::tracing::setSink(sink);
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
        service.request(Request("retrieve", path),
                        handler<Response>([&](const Response& r) { got.emplace_back(r.getPayload().text()); },
                                          [&](const Response& e) { got.push_back(e.getErrorMessage()); },
                                          [&] { got.push_back("done"); }));
    }
    EXPECT_TRUE(kept.front().isCancelled() && kept.front().next(asText("second")));
    kept.clear();
    EXPECT_THAT(got, testing::ElementsAre("answered", "done", "first", "left"));
    EXPECT_THAT(sink->take(), testing::ElementsAre(testing::HasSubstr("'retrieve /number/x' has thrown: stoi"),
                                                   testing::HasSubstr("'retrieve /odd'"),
                                                   testing::HasSubstr("'retrieve /fine'"), testing::HasSubstr("left")));
    ::tracing::setSink(nullptr);
}

// That nothing comes after an end is proven where requests are kept, for all services.
TEST(ResourceHandler, StreamsUntilCancelledOrEnded)
{
    auto service = std::make_unique<ResourceHandler>();
    std::optional<Responder> kept;
    service->onRetrieve("/load", [&kept](const Request&, Responder responder) { kept = std::move(responder); });
    std::vector<std::string> got;
    const auto start = [&] {
        return service->request(
            Request("retrieve", "/load"),
            handler<Response>([&](const Response& r) { got.emplace_back(r.getPayload().text()); },
                              [&](const Response& e) { got.push_back(Response::getErrorMessageWithCode(e)); },
                              [&] { got.push_back("done"); }));
    };
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
    EXPECT_THAT(got, testing::ElementsAre("1", "done", testing::StartsWith("503"), "503: the service has ended"));
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
