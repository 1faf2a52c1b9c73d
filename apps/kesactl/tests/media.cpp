// media: the process "media" of the sessions. "/media/player" answers "/" with a title and its follower with three
// values, echoes an update of "/volume", never answers "/hang", and refuses the rest. "/media/radio" is the same, and
// registered before it.

#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/handler.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/responsesemantics.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using kesa::Payload;
using kesa::Request;
using kesa::Responder;
using kesa::runtime::v02::KesaRuntime;
using kesa::serviceregistry::ServiceDef;

Payload json(std::string text)
{
    return Payload::createFromString(std::move(text), kesa::mimetypes::JSON);
}

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

std::shared_ptr<kesa::ResourceHandler> makePlayer()
{
    auto player = std::make_shared<kesa::ResourceHandler>();
    player->onRetrieve("/", answerTitle);
    player->onRetrieve("/text", [](const Request&, const Responder& responder) {
        responder.answer(Payload::createFromString("a \"text\"", kesa::mimetypes::TEXT));
    });
    player->onRetrieve("/hang", [kept = std::make_shared<std::vector<Responder>>()](
                                    const Request&, Responder responder) { kept->push_back(std::move(responder)); });
    player->onUpdate(
        "/volume", [](const Request& request, const Responder& responder) { responder.answer(request.getPayload()); });
    player->onDelete("/volume", [](const Request&, const Responder& responder) { responder.complete(); });
    return player;
}

} // namespace

int main()
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    if (KesaRuntime::initInstance("media", KesaRuntime::WITH_REGISTRYD)) {
        return 1;
    }
    std::vector<kesa::Disposable> registrations;
    for (const char* const path : {"/media/radio", "/media/player"}) {
        registrations.push_back(KesaRuntime::getInstance()->registerService(
            path, makePlayer(), ServiceDef::TypeEnum::pex, {"1.0.0", "1.1.0"},
            kesa::GenericObject{{"description", "plays"}}, kesa::handler<ServiceDef>([](const ServiceDef&) {})));
    }
    std::puts("started");
    std::fflush(stdout);
    int signal = 0;
    sigwait(&ends, &signal);
    KesaRuntime::shutdown();
    return 0;
}
