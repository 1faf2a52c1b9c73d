// media: the process "media" of the sessions. "/media/player" answers "/" with a title and its follower with three
// values, echoes an update of "/volume", says at "/limit" whether the request has a time limit, at "/room" its header
// "room", never answers "/hang", holds its I/O loop at "/stand", begins a stream at "/feed" and never goes on with it,
// has answers that are hard to show, and refuses the rest.
// "/media/radio" is the same, and registered before it; its description has what a terminal obeys, and as its resources
// it names what is no such list. "media NAME" is a process of that name, which says why it is refused, and ends when
// both are; all that "media warming" answers is 503. "media many" has 15,000 more, "/many/0" first. "media
// brief" withdraws what it has as soon as it is known. "media held" provides "/held" alone, and a handler holds a loop
// of its runtime from when "/media/player" is there; "media mute" is the same without "/held". "media slow" follows
// "/flood" of "/media/player" three times, which sends 2 MiB each time, with a handler that never returns. "media deaf"
// holds its I/O loop when "/deaf" is known, "media forgetful" drops what it has got for asking for "/media/player", and
// "media plain" has "/plain", or is refused it. "media ended" ends its runtime as soon as what it has is known, and
// goes on.

#include <json.h>
#include <kesa/RequestContext.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/Runtime.h>
#include <kesa/ease/found.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/provide.h>
#include <kesa/ease/resources.h>
#include <kesa/ease/use.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/reasonOf.h>
#include <kesa/responsesemantics.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using kesa::Payload;
using kesa::Request;
using kesa::Responder;
using kesa::runtime::v02::KesaRuntime;
using kesa::serviceregistry::ServiceDef;
using kesa::test::json;

void answerTitle(const Request& request, const Responder& responder)
{
    if (request.getHeaders()[kesa::headers::RESPONSE_SEMANTIC].stringView() !=
        kesa::responsesemantics::PERSISTENT_STREAM) {
        responder.answer(json(R"({"title":"one"})"));
        return;
    }
    for (const char* const title : {"one", "two", "three"}) {
        static_cast<void>(responder.next(json(R"({"title":")" + std::string(title) + R"("})")));
    }
    responder.complete();
}

void addAnswersThatAreHardToShow(kesa::ResourceHandler& player)
{
    const struct {
        const char* resource;
        std::string text;
        std::string_view format;
    } answers[] = {{"/text", "a \"text\"", kesa::mimetypes::TEXT},
                   {"/bytes", "\xff\x1b[31m", kesa::mimetypes::OCTETS},
                   {"/lines", "{\n\t\"title\": \"one\"\r\n}\n", kesa::mimetypes::JSON},
                   {"/torn", R"({"title":)", kesa::mimetypes::JSON},
                   {"/two", R"({"title":"one"} {})", kesa::mimetypes::JSON},
                   {"/nothing", "", kesa::mimetypes::JSON},
                   {"/quoted", "one", R"(x/"quoted")"},
                   {"/huge", std::string(std::size_t{17} << 20, ' '), kesa::mimetypes::TEXT}};
    for (const auto& [resource, text, format] : answers) {
        player.onRetrieve(resource,
                          [payload = Payload::createFromString(text, format)](const Request&) { return payload; });
    }
}

std::shared_ptr<kesa::ResourceHandler> makePlayer()
{
    auto player = std::make_shared<kesa::ResourceHandler>();
    player->onRetrieve("/", answerTitle, kesa::about("what plays").stream().answer(R"({"type":"object"})"));
    const auto kept = std::make_shared<std::vector<Responder>>();
    player->onRetrieve("/hang", [kept](const Request&, Responder responder) { kept->push_back(std::move(responder)); });
    player->onRetrieve("/feed", [kept](const Request&, Responder responder) {
        static_cast<void>(responder.next(json("1")));
        kept->push_back(std::move(responder));
    });
    player->onRetrieve("/flood", [kept](const Request&, Responder responder) {
        const Payload much = Payload::createFromString(std::string(std::size_t{256} << 10, ' '), kesa::mimetypes::TEXT);
        for (int values = 8; values > 0 && !responder.next(much); --values) {
        }
        kept->push_back(std::move(responder));
    });
    player->onRetrieve("/limit", [](const Request&) { return kesa::RequestContext::deadline().has_value(); });
    player->onRetrieve("/room", [](const Request& request) { return request.getHeader("room"); });
    addAnswersThatAreHardToShow(*player);
    const auto echo = [](const Request& request) { return request.getPayload(); };
    player->onUpdate("/volume", echo, kesa::about("louder\x1b[31m, or not").body(R"({"type":"object"})"));
    player->onDelete("/volume", [](const Request&) {});
    player->onRetrieve("/busy", [](const Request&) {
        kesa::Response error(429, json(R"({"queued":9})"));
        error.setHeader("retry-after-ms", 200);
        return error;
    });
    player->onRetrieve("/stand", [](const Request&) { ::pause(); });
    player->onRetrieve("/tracks/{number}", [](const Request&, const kesa::PathParameters& parameters) {
        return json(std::string(parameters["number"]));
    });
    return player;
}

struct WarmingUp : kesa::IKesaApi {
    void* request(const Request& /*request*/,
                  std::unique_ptr<kesa::IResponseHandler<kesa::Response>>&& handler) override
    {
        handler->onError(kesa::Response::createErrorResponse(503, "warming up"));
        return nullptr;
    }
    void cancel(void* /*handle*/) override {}
};

/// What it does with its runtime decides what tools say of it.
class Odd {
public:
    explicit Odd(const std::string& name) : m_runtime(kesa::startOrExit(name, KesaRuntime::WITH_REGISTRYD))
    {
        if (name == "held" || name == "plain") {
            m_registration =
                m_runtime->registerService("/" + name, makePlayer(), ServiceDef::TypeEnum::pex, kesa::GenericObject(),
                                           kesa::handler<ServiceDef>([](const ServiceDef&) {}));
        }
        const auto wait = [ended = m_end.get_future().share()](const auto&... /*news*/) { ended.wait(); };
        if (name == "held" || name == "mute") {
            m_tracking = m_runtime->trackAndResolveService("/media/player", kesa::handler<kesa::FoundByPath>(wait));
        } else if (name == "deaf") {
            m_provided = kesa::provide("/deaf", makePlayer());
            m_provided->whenKnown(wait);
        } else if (name == "forgetful") {
            static_cast<void>(
                m_runtime->trackAndResolveService("/media/player", kesa::handler<kesa::FoundByPath>(wait)));
        }
    }
    void runUntilSignal()
    {
        std::puts("started");
        std::fflush(stdout);
        m_runtime.runUntilSignal();
        m_end.set_value();
    }

private:
    std::promise<void> m_end;
    kesa::Runtime m_runtime;
    kesa::Disposable m_registration;
    kesa::Disposable m_tracking;
    std::unique_ptr<kesa::Registration> m_provided;
};

/// Takes nothing of what it follows until it is to end.
void takeNothingUntil(const sigset_t& ends)
{
    std::promise<void> end;
    const std::shared_future<void> ended = end.get_future().share();
    const auto player = kesa::use("/media/player");
    std::vector<kesa::Disposable> followed;
    for (int streams = 3; streams > 0; --streams) {
        followed.push_back(
            player->follow(Request("retrieve", "/flood"),
                           kesa::handler<kesa::Response>([ended](const kesa::Response&) { ended.wait(); })));
    }
    std::puts("started");
    std::fflush(stdout);
    int signal = 0;
    sigwait(&ends, &signal);
    end.set_value();
    player->end();
}

} // namespace

int main(int count, char** arguments)
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    const std::string name = count > 1 ? arguments[1] : "media";
    if (name == "held" || name == "mute" || name == "deaf" || name == "forgetful" || name == "plain") {
        Odd(name).runUntilSignal();
        return 0;
    }
    if (KesaRuntime::initInstance(name, KesaRuntime::WITH_REGISTRYD)) {
        return 1;
    }
    if (name == "slow") {
        takeNothingUntil(ends);
        KesaRuntime::shutdown();
        return 0;
    }
    const auto radio = makePlayer();
    if (name == "guarded") {
        radio->allow(R"({"user": "daemon", "may": ["retrieve", "update"], "resources": ["/volume", "/title"]})");
    }
    radio->onRetrieve(kesa::resources::PATH, [](const Request&) { return json(R"([{"resource":"/","command":7}])"); });
    std::atomic<int> refusals{0};
    std::atomic<int> known{0};
    std::vector<kesa::Disposable> registrations;
    const struct {
        const char* path;
        std::shared_ptr<kesa::IKesaApi> service;
        const char* description;
    } services[] = {{"/media/radio", radio, "plays\x1b[31m,\nor \u009b32mnot"},
                    {"/media/player", makePlayer(), "plays"}};
    const auto warming = name == "warming" ? std::make_shared<WarmingUp>() : nullptr;
    for (const auto& [path, service, description] : services) {
        registrations.push_back(KesaRuntime::getInstance()->registerService(
            path, warming ? warming : service, ServiceDef::TypeEnum::pex, {"1.0.0", "1.1.0"},
            kesa::GenericObject{{"description", description}},
            kesa::handler<ServiceDef>(
                [&known](const ServiceDef&) {
                    ++known;
                    known.notify_all();
                },
                [&refusals, path = path](const kesa::Response& error) {
                    std::printf("%s: %s\n", path, kesa::reasonOf(error).c_str());
                    if (++refusals == 2) {
                        ::kill(::getpid(), SIGTERM); // to the process, which waits for it
                    }
                })));
    }
    for (int i = 0; name == "many" && i < 15'000; ++i) {
        registrations.push_back(
            KesaRuntime::getInstance()->registerService("/many/" + std::to_string(i), radio, ServiceDef::TypeEnum::pex,
                                                        {}, {}, kesa::handler<ServiceDef>([](const ServiceDef&) {})));
    }
    if (name == "brief" || name == "ended") {
        for (int seen = known; seen < 2; seen = known) {
            known.wait(seen);
        }
        for (kesa::Disposable& registration : registrations) {
            registration.dispose();
        }
    }
    if (name == "ended") {
        KesaRuntime::shutdown();
    }
    std::puts("started");
    std::fflush(stdout);
    int signal = 0;
    sigwait(&ends, &signal);
    KesaRuntime::shutdown();
    return 0;
}
