// What the runtime does with its tables, in this process: operations with few and with many services present, the
// fan-out of one update, the road from `registerService` to a tracker, and memory.
//     kesa_bench_runtime [rounds]
#include "Comparison.h"
#include "Measured.h"
#include "RunDirectory.h"
#include "clocks.h"
#include "require.h"

#include <comm/ActiveObject.h>
#include <kesa/FuncCallEvent.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/handler.h>
#include <runtime/v02/config/KesaConfig.h>
#include <runtime/v02/runtime/KesaRuntimeImpl.h>
#include <tracing/Sink.h>

#include <malloc.h>

#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

using bench::require;
using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::KesaRuntimeImpl;
using kesa::serviceregistry::Query;
using kesa::serviceregistry::ServiceDef;
using Update = kesa::ResourceUpdate<ServiceDef>;

constexpr int BATCH = 500;

/// Counts what happened on other threads.
class Counter {
public:
    void add()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_count;
        m_changed.notify_one();
    }
    void waitFor(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_count >= count; });
    }
    int count()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }
    /// Counts when the last copy of it goes: with the handler that holds it.
    std::shared_ptr<void> atEnd()
    {
        return {this, [](void* self) { static_cast<Counter*>(self)->add(); }};
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_count = 0;
};

/// A runtime with so many services of its own.
class Populated {
public:
    Populated(const std::string& name, int services)
        : m_service(std::make_shared<kesa::ResourceHandler>()), m_runtime(KesaConfig(name, "{}"))
    {
        require(!m_runtime.start(), "a runtime starts");
        Counter registered;
        for (int number = 0; number < services; ++number) {
            m_kept.push_back(registerOne("/present/" + std::to_string(number), registered, nullptr));
        }
        registered.waitFor(services);
    }

    KesaRuntimeImpl& runtime() noexcept { return m_runtime; }

    kesa::Disposable registerOne(const std::string& path, Counter& registered, const std::shared_ptr<void>& end)
    {
        return m_runtime.registerService(
            path, m_service, ServiceDef::TypeEnum::pex, {"1.0.0"}, kesa::GenericObject{},
            kesa::handler<ServiceDef>([&registered, end](const ServiceDef&) { registered.add(); }));
    }

private:
    std::shared_ptr<kesa::ResourceHandler> m_service;
    KesaRuntimeImpl m_runtime;
    std::vector<kesa::Disposable> m_kept;
};

/// Nanoseconds of CPU time of all threads per operation of issuing a batch and waiting for all of it: how the threads
/// share the processors says nothing about the tables.
template <class Work>
double perOperation(Work&& work)
{
    const std::int64_t start = bench::processCpuNs();
    work();
    return static_cast<double>(bench::processCpuNs() - start) / BATCH;
}

std::string pathOf(int number)
{
    return "/new/" + std::to_string(number);
}

void dispose(std::vector<kesa::Disposable>& all)
{
    for (kesa::Disposable& each : all) {
        each.dispose();
    }
}

double registering(Populated& populated, bool timesDisposal)
{
    Counter registered;
    Counter ended;
    std::vector<kesa::Disposable> all;
    const double took = perOperation([&] {
        for (int number = 0; number < BATCH; ++number) {
            all.push_back(populated.registerOne(pathOf(number), registered, ended.atEnd()));
        }
        registered.waitFor(BATCH);
    });
    require(ended.count() == 0, "no registration ended by itself");
    const double tookDisposal = perOperation([&] {
        dispose(all);
        ended.waitFor(BATCH);
    });
    return timesDisposal ? tookDisposal : took;
}

/// Trackings of a service that is there: each hears of it once.
double tracking(Populated& populated, bool timesDisposal)
{
    Counter told;
    Counter ended;
    std::vector<kesa::Disposable> all;
    const double took = perOperation([&] {
        for (int number = 0; number < BATCH; ++number) {
            all.push_back(populated.runtime().trackService(
                "/present/" + std::to_string(number % 10),
                kesa::handler<Update>([&told, end = ended.atEnd()](const Update&) { told.add(); })));
        }
        told.waitFor(BATCH);
    });
    require(told.count() == BATCH, "each tracker is told once");
    const double tookDisposal = perOperation([&] {
        dispose(all);
        ended.waitFor(BATCH);
    });
    return timesDisposal ? tookDisposal : took;
}

/// Queries for one path. They look at every service that is there.
double querying(Populated& populated)
{
    constexpr int QUERIES = 20;
    Counter told;
    Counter ended;
    std::vector<kesa::Disposable> all;
    const double took = perOperation([&] {
        for (int number = 0; number < QUERIES; ++number) {
            all.push_back(populated.runtime().trackServices(
                Query("/present/7"),
                kesa::handler<Update>([&told, end = ended.atEnd()](const Update&) { told.add(); })));
        }
        told.waitFor(QUERIES);
    });
    dispose(all);
    ended.waitFor(QUERIES);
    return took * BATCH / QUERIES;
}

void compareSizes(int rounds)
{
    Populated few("few", 10);
    for (const int services : {1'000, 100'000}) {
        Populated many("many-" + std::to_string(services), services);
        const auto against = [&](const char* what, double (*measure)(Populated&, bool), bool timesDisposal,
                                 double aim) {
            bench::compare(what, {"10 services", [&] { return measure(few, timesDisposal); }},
                           {std::to_string(services), [&] { return measure(many, timesDisposal); }}, rounds, aim);
        };
        against("register", registering, false, 1.2);
        against("dispose a registration", registering, true, 1.2);
        against("track", tracking, false, 1.2);
        against("dispose a tracking", tracking, true, 1.2);
        bench::compare("query (looks at all)", {"10 services", [&] { return querying(few); }},
                       {std::to_string(services), [&] { return querying(many); }}, rounds);
    }
}

struct Bare {
    virtual ~Bare() = default;
    virtual bool onNext(const Update& update) = 0;
};

/// Counts in a way the compiler cannot see through.
struct BareCounter final : Bare {
    bool onNext(const Update& update) override
    {
        count = count + 1;
        return update.type != kesa::ResourceUpdateType::eADDED;
    }
    volatile int count = 0;
};

/// One update to many trackers, per tracker, beside calling as many objects through shared pointers.
void compareFanOut(int rounds)
{
    for (const int trackers : {1, 100, 10'000}) {
        Populated populated("fan-out-" + std::to_string(trackers), 0);
        Counter told;
        std::vector<kesa::Disposable> all;
        for (int number = 0; number < trackers; ++number) {
            all.push_back(
                populated.runtime().trackService("/watched", kesa::handler<Update>([&told](const Update& update) {
                                                     if (update.type == kesa::ResourceUpdateType::eADDED) {
                                                         told.add();
                                                     }
                                                 })));
        }
        std::vector<std::shared_ptr<Bare>> bare;
        for (int number = 0; number < trackers; ++number) {
            bare.push_back(std::make_shared<BareCounter>());
        }
        int rounded = 0;
        bench::compare("one update to " + std::to_string(trackers) + " trackers, each",
                       {"bare calls",
                        [&] {
                            const std::int64_t start = bench::wallNs();
                            const auto copy = bare;
                            for (const auto& each : copy) {
                                each->onNext(Update());
                            }
                            return static_cast<double>(bench::wallNs() - start) / trackers;
                        }},
                       {"runtime",
                        [&] {
                            Counter registered;
                            Counter ended;
                            const std::int64_t start = bench::wallNs();
                            auto registration = populated.registerOne("/watched", registered, ended.atEnd());
                            told.waitFor(++rounded * trackers);
                            const auto took = static_cast<double>(bench::wallNs() - start) / trackers;
                            registration.dispose();
                            ended.waitFor(1);
                            return took;
                        }},
                       rounds);
    }
}

/// From the call to the tracker's handler, beside the same hand-overs from thread to thread.
void compareRoad(int rounds)
{
    Populated populated("road", 0);
    comm::ActiveObject first("first");
    comm::ActiveObject second("second");
    Counter told;
    auto watching = populated.runtime().trackService("/watched", kesa::handler<Update>([&told](const Update& update) {
                                                         if (update.type == kesa::ResourceUpdateType::eADDED) {
                                                             told.add();
                                                         }
                                                     }));
    int rounded = 0;
    bench::compare("registerService to a tracker's onNext",
                   {"two hand-overs",
                    [&] {
                        Counter arrived;
                        const std::int64_t start = bench::wallNs();
                        kesa::post(first, [&] { kesa::post(second, [&] { arrived.add(); }); });
                        arrived.waitFor(1);
                        return static_cast<double>(bench::wallNs() - start);
                    }},
                   {"runtime",
                    [&] {
                        Counter registered;
                        Counter ended;
                        const std::int64_t start = bench::wallNs();
                        auto registration = populated.registerOne("/watched", registered, ended.atEnd());
                        told.waitFor(++rounded);
                        const auto took = static_cast<double>(bench::wallNs() - start);
                        registration.dispose();
                        ended.waitFor(1);
                        return took;
                    }},
                   rounds * 20);
    watching.dispose();
}

/// CPU time of all threads, from `registerService` to a tracker's handler and back, beside queries that it is not for.
double updateBesideQueries(Populated& populated, Counter& told, int& rounded)
{
    constexpr int UPDATES = 20;
    return perOperation([&] {
               for (int number = 0; number < UPDATES; ++number) {
                   Counter registered;
                   Counter ended;
                   auto registration = populated.registerOne("/watched", registered, ended.atEnd());
                   told.waitFor(++rounded);
                   registration.dispose();
                   ended.waitFor(1);
               }
           }) *
           BATCH / UPDATES;
}

void compareQueries(int rounds)
{
    struct Watching {
        explicit Watching(int queries) : populated("queries-" + std::to_string(queries), 0)
        {
            for (int number = 0; number < queries; ++number) {
                kept.push_back(populated.runtime().trackServices(Query("/other/" + std::to_string(number) + "/**"),
                                                                 kesa::handler<Update>([](const Update&) {})));
            }
            kept.push_back(populated.runtime().trackServices(Query("/watched"),
                                                             kesa::handler<Update>([this](const Update& update) {
                                                                 if (update.type == kesa::ResourceUpdateType::eADDED) {
                                                                     told.add();
                                                                 }
                                                             })));
        }
        Populated populated;
        Counter told;
        int rounded = 0;
        std::vector<kesa::Disposable> kept;
    };
    Watching few(10);
    Watching many(1'000);
    const auto measure = [](Watching& watching) {
        return updateBesideQueries(watching.populated, watching.told, watching.rounded);
    };
    bench::compare("a service comes and goes", {"10 other queries", [&] { return measure(few); }},
                   {"1,000", [&] { return measure(many); }}, rounds);
    dispose(few.kept);
    dispose(many.kept);
}

std::size_t heapBytes()
{
    return mallinfo2().uordblks;
}

void printBytes()
{
    constexpr int COUNT = 10'000;
    Populated populated("bytes", 10);
    Counter done;
    std::vector<kesa::Disposable> all;
    all.reserve(2 * COUNT);
    std::size_t before = heapBytes();
    for (int number = 0; number < COUNT; ++number) {
        all.push_back(populated.registerOne(pathOf(number), done, nullptr));
    }
    done.waitFor(COUNT);
    std::printf("%-44s %zu bytes\n", "a registered service", (heapBytes() - before) / COUNT);
    before = heapBytes();
    for (int number = 0; number < COUNT; ++number) {
        all.push_back(populated.runtime().trackService(pathOf(number),
                                                       kesa::handler<Update>([&done](const Update&) { done.add(); })));
    }
    done.waitFor(2 * COUNT);
    std::printf("%-44s %zu bytes\n", "a tracker", (heapBytes() - before) / COUNT);
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
    const bench::RunDirectory directory(R"({"use_registry": false})");
    tracing::setThreshold("*", 5);

    compareSizes(rounds);
    compareFanOut(rounds);
    compareRoad(rounds);
    compareQueries(rounds);
    printBytes();
    return 0;
}
