// logger: prints the temperature of /thermometer as it changes, whenever there is one, until SIGINT or SIGTERM.

#include <kesa/ease/Runtime.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/use.h>

#include <iostream>

int main()
{
    kesa::announceCrashes();
    kesa::Runtime runtime = kesa::startOrExit("logger");

    const auto thermometer = kesa::use("/thermometer"); // over restarts of its process and of the registry
    thermometer->onChange([](bool isConnected) { std::cout << (isConnected ? "there\n" : "gone\n") << std::flush; });
    const auto print = [](const kesa::Response& celsius) {
        std::cout << std::string(celsius.getPayload().text()) + '\n' << std::flush; // "20.5": a number in JSON
    };
    const auto values =
        thermometer->follow(kesa::Request("retrieve", "/celsius"), kesa::handler<kesa::Response>(print));

    runtime.runUntilSignal();
}
