// hub: hosts the registry in place of kesa-registryd, and provides /hub itself, until SIGINT or SIGTERM. Whoever shall
// meet here, and hub itself, is given the document that says so: KESA_CONFIG=kesa.json.

#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/Runtime.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/provide.h>
#include <kesa/reasonOf.h>
#include <kesa/registry/RegistryHost.h>

#include <atomic>
#include <csignal>
#include <iostream>
#include <unistd.h>

int main()
{
    kesa::announceCrashes();
    std::atomic<bool> hasFailed{false};
    kesa::Runtime runtime = kesa::startOrExit("hub", ""); // without a document it would not know that it is the host

    kesa::registry::RegistryHost host(
        *runtime, [] { std::cout << "the registry is at ipc://hub/registry" << std::endl; },
        [&hasFailed](const kesa::Response& error) {
            std::cerr << "hub: " << kesa::reasonOf(error) << std::endl;
            hasFailed = true;
            ::kill(::getpid(), SIGTERM); // ends runUntilSignal
        });

    const auto service = std::make_shared<kesa::ResourceHandler>();
    service->onRetrieve("/motto", [](const kesa::Request&) { return "all meet here"; });
    const auto hub = kesa::provide("/hub", service); // withdrawn before the registry is

    runtime.runUntilSignal();
    return hasFailed ? 1 : 0;
}
