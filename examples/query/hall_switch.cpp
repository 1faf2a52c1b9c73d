// hall-switch: switches on each lamp of the hall, whoever provides it, as soon as it is there. Ends on SIGINT and
// SIGTERM.

#include <kesa/ease/Runtime.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/body.h>
#include <kesa/ease/found.h>
#include <kesa/ease/handler.h>

#include <iostream>

void switchOn(const std::string& path, kesa::IKesaApi& lamp)
{
    const auto failed = [path](const kesa::Response& error) {
        std::cout << path + ": " + kesa::Response::getErrorMessageWithCode(error) + '\n' << std::flush;
    };
    const auto done = [path] { std::cout << path + " was switched on\n" << std::flush; };
    const auto nothing = [](const kesa::Response&) {}; // this update has no answer but its end
    lamp.request(kesa::Request("update", "/light", kesa::asPayload(true)),
                 kesa::handler<kesa::Response>(nothing, failed, done));
}

int main()
{
    kesa::announceCrashes();
    kesa::Runtime runtime = kesa::startOrExit("hall-switch");

    kesa::serviceregistry::Query query("/lamps/*");
    query.metadata = kesa::GenericObject{{"room", "hall"}};
    const auto found = [](const kesa::FoundByQuery& lamp) {
        const std::string path = lamp.serviceDef.path.toString();
        if (lamp.api) {
            switchOn(path, **lamp.api);
        } else {
            std::cout << path + " is gone\n" << std::flush;
        }
    };
    const auto hall = runtime->trackAndResolveServices(query, kesa::handler<kesa::FoundByQuery>(found));

    runtime.runUntilSignal();
}
