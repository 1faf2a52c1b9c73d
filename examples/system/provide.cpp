#include "provide.h"

#include <comm/Scheduler.h>
#include <kesa/ease/Runtime.h>
#include <kesa/ease/handler.h>

#include <cstdio>

namespace examples {

namespace {

using kesa::serviceregistry::ServiceDef;

constexpr comm::TimeNs PERIOD = 250 * comm::MILLISECOND;

void sampleForEver(comm::Reactor& loop, const Feeds& feeds, comm::TimeNs when)
{
    loop.startTimer(when, [&loop, &feeds, when] {
        for (const auto& feed : feeds) {
            feed->sample();
        }
        sampleForEver(loop, feeds, when + PERIOD);
    });
}

kesa::Disposable provide(kesa::runtime::v02::IRuntimeRegistry& runtime, const Feed& feed)
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

int provideUntilSignal(const char* name, const Feeds& feeds)
{
    kesa::Runtime runtime(name);
    if (!runtime) {
        std::fprintf(stderr, "%s\n", runtime.error().c_str());
        return 1;
    }
    std::vector<kesa::Disposable> registrations;
    for (const auto& feed : feeds) {
        registrations.push_back(provide(*runtime, *feed));
    }
    const auto sampler = comm::Scheduler::current().makeReactor("examples.sampler");
    sampler->post([&] { sampleForEver(*sampler, feeds, comm::now() + PERIOD); });

    runtime.runUntilSignal();
    sampler->stop();
    return 0;
}

} // namespace examples
