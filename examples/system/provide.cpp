#include "provide.h"

#include <kesa/ease/Runtime.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/provide.h>
#include <kesa/reasonOf.h>

#include <cstdio>

namespace examples {

int provideUntilSignal(const char* name, const Feeds& feeds)
{
    kesa::announceCrashes();
    kesa::Runtime runtime = kesa::startOrExit(name);
    std::vector<std::unique_ptr<kesa::Registration>> registrations;
    for (const auto& feed : feeds) {
        const char* const path = feed->path().c_str();
        registrations.push_back(
            kesa::provide(feed->path(), feed->service(), {{"versions", "1.0.0"}}, [path](const kesa::Response& error) {
                std::fprintf(stderr, "%s cannot be provided: %s\n", path, kesa::reasonOf(error).c_str());
            }));
        registrations.back()->whenKnown([path] {
            std::printf("%s\n", path);
            std::fflush(stdout);
        });
    }
    runtime.runUntilSignal(std::chrono::milliseconds(250), [&feeds] {
        for (const auto& feed : feeds) {
            feed->sample();
        }
    });
    return 0;
}

} // namespace examples
