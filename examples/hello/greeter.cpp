// greeter: provides /greeter, which greets whoever asks it, until SIGINT or SIGTERM.

#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/Runtime.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/provide.h>

#include <iostream>

int main()
{
    kesa::Runtime runtime = kesa::startOrExit("greeter"); // first in main: it blocks SIGINT and SIGTERM
    kesa::announceCrashes();                              // others know of a crash before its core is written

    const auto service = std::make_shared<kesa::ResourceHandler>();
    service->onRetrieve("/hello/{name}", [](const kesa::Request&, const kesa::PathParameters& path) {
        return "hello " + std::string(path["name"]);
    });
    const auto greeter = kesa::provide("/greeter", service); // until it goes
    greeter->whenKnown([] { std::cout << "others find /greeter now" << std::endl; });

    runtime.runUntilSignal();
}
