// system-monitor: provides this machine's own counters as services: /system/cpu, /system/memory, /system/load and
// /system/net/<interface> for each network interface. Ends on SIGINT and SIGTERM.

#include "Counters.h"
#include "Feed.h"

#include <comm/Scheduler.h>
#include <kesa/ease/handler.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

using kesa::runtime::v02::KesaRuntime;
using kesa::serviceregistry::ServiceDef;

constexpr comm::TimeNs PERIOD = 250 * comm::MILLISECOND;

std::vector<std::unique_ptr<examples::Feed>> makeFeeds()
{
    std::vector<std::unique_ptr<examples::Feed>> feeds;
    const auto add = [&feeds](const std::string& path, std::function<kesa::GenericObject()> read) {
        feeds.push_back(std::make_unique<examples::Feed>(path, std::move(read)));
    };
    add("/system/cpu", [counter = std::make_shared<examples::CpuCounter>()] { return counter->read(); });
    add("/system/memory", examples::readMemory);
    add("/system/load", examples::readLoad);
    for (const std::string& interface : examples::networkInterfaces()) {
        add("/system/net/" + interface, [interface] { return examples::readNetwork(interface); });
    }
    return feeds;
}

void sampleForEver(comm::Reactor& loop, const std::vector<std::unique_ptr<examples::Feed>>& feeds, comm::TimeNs when)
{
    loop.startTimer(when, [&loop, &feeds, when] {
        for (const auto& feed : feeds) {
            feed->sample();
        }
        sampleForEver(loop, feeds, when + PERIOD);
    });
}

kesa::Disposable provide(kesa::runtime::v02::IRuntimeRegistry& runtime, const examples::Feed& feed)
{
    return runtime.registerService(
        feed.path(), feed.service(), ServiceDef::TypeEnum::pex, {"1.0.0"}, kesa::GenericObject{},
        kesa::handler<ServiceDef>(
            [](const ServiceDef& service) {
                std::printf("%s at %s\n", service.path.toString().c_str(), service.locators.front().toString().c_str());
                std::fflush(stdout);
            },
            [path = feed.path()](const kesa::Response& error) {
                std::fprintf(stderr, "%s cannot be provided: %s\n", path.c_str(),
                             kesa::Response::getErrorMessageWithCode(error).c_str());
            }));
}

} // namespace

int main()
{
    // Blocked before the first thread is made, so that only `sigwait` below takes them.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    if (KesaRuntime::initInstance("system-monitor")) {
        std::fputs("system-monitor: the runtime did not start\n", stderr);
        return 1;
    }
    const auto feeds = makeFeeds();
    std::vector<kesa::Disposable> registrations;
    for (const auto& feed : feeds) {
        registrations.push_back(provide(*KesaRuntime::getInstance(), *feed));
    }
    const auto sampler = comm::Scheduler::current().makeReactor("system-monitor.sampler");
    sampler->post([&] { sampleForEver(*sampler, feeds, comm::now() + PERIOD); });

    int signal = 0;
    sigwait(&ends, &signal);

    sampler->stop();
    KesaRuntime::shutdown();
    return 0;
}
