// player: provides /player, which takes titles and plays them, and says why when it does not. Ends on SIGINT and
// SIGTERM.

#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/Runtime.h>
#include <kesa/ease/asText.h>
#include <kesa/ease/provide.h>

#include <iostream>
#include <stdexcept>
#include <vector>

int main()
{
    std::vector<std::string> titles; // used by the routes alone, which are called one at a time
    std::vector<kesa::Responder> listeners;
    kesa::Runtime runtime = kesa::startOrExit("player"); // after what its handlers use: it ends before that goes

    const auto service = std::make_shared<kesa::ResourceHandler>();
    service->onInsert("/titles", [&](const kesa::Request& request, const kesa::Responder& reply) {
        titles.emplace_back(request.getPayload().text());
        reply.answer(kesa::asText(std::to_string(titles.size())));
    });
    service->onUpdate("/play", [&](const kesa::Request&, const kesa::Responder& reply) {
        if (titles.empty()) {
            reply.fail(409, "there is nothing to play"); // any status of 400 and above
            return;
        }
        std::cout << "plays " << titles.front() << std::endl;
        reply.complete(); // done, without an answer
    });
    service->onUpdate("/eject", [](const kesa::Request&, const kesa::Responder&) {
        throw std::runtime_error("the drive is stuck"); // is answered with 500
    });
    service->onRetrieve("/end", [&](const kesa::Request&, const kesa::Responder& reply) {
        listeners.push_back(reply); // may be answered later, from any thread; here never
    });
    const auto player = kesa::provide("/player", service);

    runtime.runUntilSignal();
}
