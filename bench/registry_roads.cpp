#include "registry_roads.h"

#include "RegistryClient.h"
#include "RunDirectory.h"
#include "floors.h"

#include <kesa/commands.h>
#include <kesa/ease/handler.h>

#include <sys/wait.h>

#include <atomic>
#include <string>
#include <utility>
#include <vector>

namespace bench {

namespace {

using kesa::ResourceUpdateType;
using kesa::serviceregistry::Query;
using Api = std::shared_ptr<kesa::IKesaApi>;
using Update = kesa::ResourceUpdate<ServiceDef>;
using Ready = std::function<void()>;

constexpr int MOST = 1'000'000; ///< operations of one measurement
/// So many registrations are there at most where they come one after the other: a process that has ever more services
/// is another question.
constexpr int MOST_THERE = 100;

/// What the watcher has heard, for the others.
struct Heard {
    std::atomic<std::int64_t> addedAt{0};
    std::atomic<std::int64_t> removedAt{0};
    Signal added;
    Signal removed;

    void add()
    {
        addedAt = wallNs();
        added.give();
    }
    void remove()
    {
        removedAt = wallNs();
        removed.give();
    }
};

auto hearing(Heard& heard)
{
    return kesa::handler<Update>([&heard](const Update& update) {
        if (numberOf(update.element.path.toString()) < 0) {
            return;
        }
        if (update.type == ResourceUpdateType::eADDED) {
            heard.add();
        } else {
            heard.remove();
        }
    });
}

void callOnce(kesa::IKesaApi& api, Heard& heard)
{
    api.request(kesa::Request(kesa::commands::RETRIEVE, "/"),
                kesa::handler<kesa::Response>([&heard](const kesa::Response& response) {
                    require(response.getPayload().text() == "here", "answer of the service");
                    heard.add();
                }));
}

kesa::Disposable follow(RegistryClient& client, Watch watch, Heard& heard)
{
    using Resolved = kesa::runtime::v02::ResolveResult<kesa::optional<Api>>;
    switch (watch) {
    case Watch::eQUERY:
        return client.runtime().trackServices(Query("**"), hearing(heard));
    case Watch::ePATH:
        return client.runtime().trackService(pathOf(1), hearing(heard));
    case Watch::eANSWERED:
        break;
    }
    return client.runtime().trackAndResolveServices(Query("/bench/**"),
                                                    kesa::handler<Resolved>([&heard](const Resolved& result) {
                                                        if (result.api) {
                                                            callOnce(**result.api, heard);
                                                        } else {
                                                            heard.remove();
                                                        }
                                                    }));
}

ChildProcess makeWatcher(Watch watch, Heard& heard)
{
    return ChildProcess([watch, &heard](const Ready& ready) {
        RegistryClient client("bench-watcher");
        client.switchLogOff();
        const kesa::Disposable following = follow(client, watch, heard);
        client.sync();
        ready();
        pauseForEver();
    });
}

} // namespace

Measured confirmedRegistrations(double seconds, int inFlight)
{
    const ChildProcess registryd{std::string(KESA_REGISTRYD)};
    std::vector<std::int64_t> startedAt(MOST);
    Recorder recorder(registryd, seconds);
    Signal next(Signal::Between::eTHREADS);
    std::atomic<bool> isOver = false;
    std::atomic<int> confirmed = 0;
    RegistryClient client("bench-provider", [&](int number, std::int64_t atNs) {
        require(number == confirmed, "order of the confirmations");
        isOver = isOver || !recorder.add(startedAt[static_cast<std::size_t>(number)], atNs);
        ++confirmed;
        next.give();
    });
    next.give(inFlight);
    int issued = 0;
    std::vector<kesa::Disposable> there;
    for (; !isOver; ++issued) {
        next.take("confirmation of a registration");
        require(issued < MOST, "room for all registrations");
        if (inFlight == 1 && there.size() == MOST_THERE) {
            for (kesa::Disposable& registration : there) {
                registration.dispose();
            }
            there.clear();
            client.sync();
        }
        startedAt[static_cast<std::size_t>(issued)] = wallNs();
        there.push_back(client.registerService(issued));
    }
    client.sync();
    require(confirmed == issued, "all registrations are confirmed");
    return recorder.result();
}

Measured bareRegistrations(double seconds)
{
    const ChildProcess registryd{std::string(KESA_REGISTRYD)};
    RegistryClient client("bench-provider");
    Recorder recorder(registryd, seconds);
    Signal answered(Signal::Between::eTHREADS);
    std::int64_t answeredAt = 0;
    int number = 0;
    for (bool goesOn = true; goesOn; ++number) {
        const kesa::Path path(pathOf(number));
        const ServiceDef service(path, ServiceDef::TypeEnum::pex, {"1.0.0"},
                                 {kesa::url("ipc://bench-provider/" + path.toString())});
        const std::int64_t startedAt = wallNs();
        client.bare().registerService(kesa::handler<ServiceDef>([&](const ServiceDef& registered) {
                                          answeredAt = wallNs();
                                          require(registered.path == path && registered.id, "the registered record");
                                          answered.give();
                                      }),
                                      path, service);
        answered.take("answer to a registration");
        goesOn = recorder.add(startedAt, answeredAt);
    }
    return recorder.result();
}

Measured registrationsElsewhere(double seconds, Watch watch)
{
    const ChildProcess registryd{std::string(KESA_REGISTRYD)};
    const Shared<Heard> heard;
    const ChildProcess watcher = makeWatcher(watch, *heard);
    RegistryClient client("bench-provider");
    Recorder recorder(registryd, seconds);
    for (bool goesOn = true; goesOn;) {
        kesa::Disposable registration;
        const std::int64_t startedAt = wallNs();
        client.registerAndWait(1, registration);
        heard->added.take("the watcher hears of a registration");
        goesOn = recorder.add(startedAt, heard->addedAt);
        registration.dispose();
        heard->removed.take("the watcher hears of a withdrawal");
    }
    return recorder.result();
}

namespace {

struct Life {
    std::int64_t contactNs = 0;
    std::int64_t deathNs = 0;
};

/// A process registers, is seen by the watcher, and is killed; again and again.
std::vector<Life> lives(int samples, Watch watch)
{
    struct Start {
        Signal begin;
        std::atomic<std::int64_t> startedAt{0};
    };
    const ChildProcess registryd{std::string(KESA_REGISTRYD)};
    const Shared<Heard> heard;
    const Shared<Start> start;
    const ChildProcess watcher = makeWatcher(watch, *heard);
    std::vector<Life> all;
    for (int number = 0; number < samples; ++number) {
        const ChildProcess mortal([&](const Ready& ready) {
            RegistryClient client("bench-mortal-" + std::to_string(number));
            ready();
            start->begin.take("start of a registration");
            start->startedAt = wallNs();
            static_cast<void>(client.registerService(number));
            pauseForEver();
        });
        start->begin.give();
        heard->added.take("the watcher hears of a new process");
        const std::int64_t killedAt = wallNs();
        mortal.kill();
        heard->removed.take("the watcher hears of a death");
        all.push_back({heard->addedAt - start->startedAt, heard->removedAt - killedAt});
    }
    return all;
}

double medianOf(const std::vector<Life>& lives, std::int64_t Life::*member)
{
    std::vector<double> values;
    for (const Life& life : lives) {
        values.push_back(static_cast<double>(life.*member));
    }
    return quantile(std::move(values), 0.5);
}

} // namespace

double firstContact(int samples)
{
    return medianOf(lives(samples, Watch::eANSWERED), &Life::contactNs);
}

double deathElsewhere(int samples)
{
    return medianOf(lives(samples, Watch::eQUERY), &Life::deathNs);
}

double rawDeath(int samples)
{
    using kesa::runtime::v02::KesaRuntime;
    const RunDirectory directory(R"({"use_registry": false})");
    std::vector<double> times;
    for (int number = 0; number < samples; ++number) {
        times.push_back(static_cast<double>(deathHeardThroughAnother([&](const Ready& ready) {
            require(!KesaRuntime::initInstance("bench-mortal"), "start of the runtime");
            ready();
            pauseForEver();
        })));
    }
    return quantile(std::move(times), 0.5);
}

} // namespace bench
