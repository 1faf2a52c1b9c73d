// player: provides /player, which takes titles and plays them, and says why when it does not. Ends on SIGINT and
// SIGTERM.

#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/Runtime.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/provide.h>

#include <iostream>
#include <stdexcept>
#include <vector>

int main()
{
    kesa::announceCrashes();
    std::vector<std::string> titles; // used by the routes alone, which are called one at a time
    std::vector<kesa::Responder> listeners;
    kesa::Runtime runtime = kesa::startOrExit("player"); // after what its handlers use: it ends before that goes

    const auto service = std::make_shared<kesa::ResourceHandler>();
    service->onInsert("/titles", [&](const kesa::Request& request) {
        titles.push_back(kesa::body<std::string>(request)); // or 400, and what is wrong with the body
        return titles.size();
    });
    service->onUpdate("/play", [&](const kesa::Request&) {
        if (titles.empty()) {
            throw kesa::RequestError(409, "there is nothing to play"); // any status of 400 and above
        }
        std::cout << "plays " << titles.front() << std::endl; // done, without an answer
    });
    service->onUpdate("/eject", [](const kesa::Request&) {
        throw std::runtime_error("the drive is stuck"); // is answered with 500, and traced
    });
    service->onRetrieve("/end", [&](const kesa::Request&, const kesa::Responder& reply) {
        listeners.push_back(reply); // may be answered later, from any thread; here never
    });
    // What other users may; the rest is answered 403.
    service->allow(R"({"may": ["retrieve", "update"]})");
    service->allow(R"({"group": "audio", "may": "insert", "resources": "/titles"})");
    const auto player = kesa::provide("/player", service);

    runtime.runUntilSignal();
}
