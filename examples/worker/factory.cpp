// factory: provides /factory, which takes numbers apart. That may take long, so it is done on a thread of its own.
// Ends on SIGINT and SIGTERM.

#include <kesa/RequestContext.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/Runtime.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/on.h>
#include <kesa/ease/provide.h>

#include <cstdint>

/// "2 2 3" for 12. Gives up when the caller's time is over.
std::string factorsOf(std::uint64_t number)
{
    const auto deadline = kesa::RequestContext::deadline();
    std::string factors;
    for (std::uint64_t divisor = 2; divisor <= number / divisor; ++divisor) {
        if (deadline && divisor % 65536 == 0 && comm::now() > *deadline) {
            return {};
        }
        for (; number % divisor == 0 && number > divisor; number /= divisor) {
            factors += std::to_string(divisor) + ' ';
        }
    }
    return factors + std::to_string(number);
}

int main()
{
    kesa::announceCrashes();
    const auto worker = std::make_shared<comm::ActiveObject>("factory.worker"); // a thread with a queue
    kesa::Runtime runtime = kesa::startOrExit("factory");

    const auto service = std::make_shared<kesa::ResourceHandler>();
    service->onRetrieve("/factors/{number}", [](const kesa::Request&, const kesa::PathParameters& path) {
        return factorsOf(std::stoull(std::string(path["number"]))); // what this throws is answered with 500
    });
    const auto factory = kesa::provide("/factory", kesa::on(worker, service)); // so a route may block

    runtime.runUntilSignal();
}
