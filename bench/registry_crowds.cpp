#include "registry_crowds.h"

#include "Measured.h"
#include "RegistryClient.h"

#include <kesa/ease/handler.h>

#include <fstream>
#include <functional>
#include <set>
#include <utility>

namespace bench {

const char* const WITH_REGISTRY = kesa::runtime::v02::KesaRuntime::WITH_REGISTRYD;

namespace {

using kesa::ResourceUpdateType;
using kesa::serviceregistry::Query;
using kesa::serviceregistry::RegistryUpdate;
using Added = RegistryUpdate::UpdateTypeEnum;
using Update = kesa::ResourceUpdate<ServiceDef>;
using Ready = std::function<void()>;

constexpr int BATCH = 200;
constexpr int FIRST_NAME_OF_CROWD = 1'000'000;

const Query ALL("/bench/**");

ChildProcess makeRegistryd()
{
    return ChildProcess(std::string(KESA_REGISTRYD));
}

std::string fileOf(const ChildProcess& process, const char* name)
{
    return "/proc/" + std::to_string(process.pid()) + "/" + name;
}

std::size_t statusBytes(const ChildProcess& process, const std::string& key)
{
    std::ifstream status(fileOf(process, "status"));
    for (std::string word; status >> word;) {
        std::size_t kibibytes = 0;
        if (word == key && status >> kibibytes) {
            return kibibytes * 1024;
        }
    }
    require(false, "memory of a process");
    return 0;
}

/// Registers services `first` to `first + count - 1` and stays.
std::unique_ptr<ChildProcess> makeProvider(const std::string& name, int first, int count,
                                           std::size_t informationBytes = 0)
{
    return std::make_unique<ChildProcess>([&](const Ready& ready) {
        Signal confirmed;
        RegistryClient client(name, [&confirmed](int, std::int64_t) { confirmed.give(); });
        const std::string information(informationBytes, 'x');
        for (int number = first; number < first + count; ++number) {
            static_cast<void>(client.registerService(number, information));
        }
        for (int number = 0; number < count; ++number) {
            confirmed.take("confirmation of a registration");
        }
        ready();
        pauseForEver();
    });
}

/// Tracks paths and patterns that nobody registers.
std::unique_ptr<ChildProcess> makeWatcherOfOthers(int count, bool hasPatterns)
{
    return std::make_unique<ChildProcess>([&](const Ready& ready) {
        RegistryClient client("bench-watcher-of-others");
        client.switchLogOff();
        const auto nothing = [] {
            return kesa::handler<Update>([](const Update&) { require(false, "nothing to be told"); });
        };
        for (int number = 0; number < count; ++number) {
            const std::string path = "/other/" + std::to_string(number);
            static_cast<void>(hasPatterns && number % 2 == 1
                                  ? client.runtime().trackServices(Query(path + "/**"), nothing())
                                  : client.runtime().trackService(path, nothing()));
        }
        client.sync();
        ready();
        pauseForEver();
    });
}

} // namespace

std::size_t residentBytes(const ChildProcess& process)
{
    return statusBytes(process, "VmRSS:");
}

std::size_t peakBytes(const ChildProcess& process)
{
    return statusBytes(process, "VmHWM:");
}

void forgetPeak(const ChildProcess& process)
{
    std::ofstream(fileOf(process, "clear_refs")) << 5;
}

// ---- one change beside many ---------------------------------------------------------------------------------------

World::World(const Population& population)
    : m_population(population), m_directory(WITH_REGISTRY), m_registryd(std::string(KESA_REGISTRYD))
{
    if (population.names > 0) {
        m_crowd.push_back(makeProvider("bench-crowd", FIRST_NAME_OF_CROWD, population.names));
    }
    if (population.othersWatchers > 0) {
        m_crowd.push_back(makeWatcherOfOthers(population.othersWatchers, true));
    }
    const int connections = population.watchers >= 10 ? 10 : population.watchers;
    for (int connection = 0; connection < connections; ++connection) {
        m_crowd.push_back(std::make_unique<ChildProcess>([&](const Ready& ready) {
            RegistryClient client("bench-watcher-" + std::to_string(connection));
            client.switchLogOff();
            for (int number = 0; number < population.watchers / connections; ++number) {
                client.bare().trackService(kesa::handler<RegistryUpdate>([&](const RegistryUpdate&) {
                                               m_board->toldAt = wallNs();
                                               if (++m_board->told == population.watchers) {
                                                   m_board->allTold.give();
                                               }
                                           }),
                                           kesa::Path(pathOf(1)), {});
            }
            client.sync();
            ready();
            pauseForEver();
        }));
    }
    m_client = std::make_unique<ChildProcess>([this](const Ready& ready) {
        RegistryClient client("bench-provider");
        ready();
        while (true) {
            m_board->begin.take("the next batch");
            std::int64_t wallNs = 0;
            std::int64_t fanOutNs = 0;
            const auto awaitAll = [&] {
                if (m_population.watchers > 0) {
                    m_board->allTold.take("all watchers are told");
                    require(m_board->told.exchange(0) == m_population.watchers, "each watcher is told once");
                }
            };
            for (int i = 0; i < BATCH; ++i) {
                kesa::Disposable registration;
                const std::int64_t startedAt = bench::wallNs();
                wallNs += client.registerAndWait(1, registration) - startedAt;
                awaitAll();
                fanOutNs += m_board->toldAt - startedAt;
                registration.dispose();
                awaitAll();
                client.sync();
            }
            m_board->wallNs = wallNs;
            m_board->fanOutNs = fanOutNs;
            m_board->end.give();
        }
    });
}

World::Cost World::registrations()
{
    const std::int64_t cpu = m_registryd.cpuNs();
    m_board->begin.give();
    m_board->end.take("the end of a batch");
    const auto each = [](std::int64_t sum) { return static_cast<double>(sum) / BATCH; };
    return {each(m_board->wallNs), each(m_registryd.cpuNs() - cpu), each(m_board->fanOutNs)};
}

// ---- first lists --------------------------------------------------------------------------------------------------

namespace {

std::vector<std::unique_ptr<ChildProcess>> makeListed(const Listing& listing)
{
    constexpr int PROVIDERS = 10;
    const int each = listing.count / PROVIDERS;
    require(each * PROVIDERS == listing.count, "a number of records that ten processes can share");
    return makeCrowd(PROVIDERS, [&](int number) {
        return makeProvider("bench-provider-" + std::to_string(number), number * each, each, listing.informationBytes);
    });
}

/// Takes each service once.
class Seen {
public:
    explicit Seen(const Listing& listing)
        : m_informationBytes(listing.informationBytes), m_isSeen(static_cast<std::size_t>(listing.count))
    {}
    void add(const ServiceDef& service)
    {
        const auto number = static_cast<std::size_t>(numberOf(service.path.toString()));
        require(number < m_isSeen.size() && !m_isSeen[number], "each service once");
        require(m_informationBytes == 0 ||
                    service.metainfo.value()["information"].stringView().size() == m_informationBytes,
                "the record is whole");
        m_isSeen[number] = true;
        ++m_count;
    }
    bool hasAll() const noexcept { return m_count == m_isSeen.size(); }

private:
    std::size_t m_informationBytes;
    std::vector<bool> m_isSeen;
    std::size_t m_count = 0;
};

} // namespace

double firstList(const Listing& listing, int samples)
{
    const ChildProcess registryd = makeRegistryd();
    const auto providers = makeListed(listing);
    std::vector<double> times;
    for (int sample = 0; sample < samples; ++sample) {
        const Shared<std::atomic<std::int64_t>> took;
        const ChildProcess watcher([&](const Ready& ready) {
            RegistryClient client("bench-watcher");
            client.switchLogOff();
            Seen seen(listing);
            Signal hasAll;
            const std::int64_t startedAt = wallNs();
            const kesa::Disposable query =
                client.runtime().trackServices(ALL, kesa::handler<Update>([&](const Update& update) {
                                                   require(update.type == ResourceUpdateType::eADDED, "nothing goes");
                                                   seen.add(update.element);
                                                   if (seen.hasAll()) {
                                                       *took = wallNs() - startedAt;
                                                       hasAll.give();
                                                   }
                                               }));
            hasAll.take("the whole list");
            client.sync(); // nothing comes behind it
            ready();
        });
        times.push_back(static_cast<double>(took->load()));
    }
    return quantile(std::move(times), 0.5);
}

ListedToMany firstListForMany(const Listing& listing, int watchers)
{
    struct Board {
        Signal begin;
        Signal end;
        std::atomic<std::int64_t> endedAt{0};
    };
    ChildProcess registryd = makeRegistryd();
    const auto providers = makeListed(listing);
    const Shared<Board> board;
    const auto crowd = makeCrowd(watchers, [&](int number) {
        return std::make_unique<ChildProcess>([&, number](const Ready& ready) {
            RegistryClient client("bench-watcher-" + std::to_string(number));
            client.switchLogOff();
            auto& registry = client.bare();
            Seen seen(listing);
            ready();
            board->begin.take("the start");
            registry.queryRegistry(
                kesa::handler<std::vector<RegistryUpdate>>(
                    [&](const std::vector<RegistryUpdate>& list) {
                        for (const RegistryUpdate& update : list) {
                            require(update.updateType == Added::ADDED, "nothing goes");
                            seen.add(*update.element);
                        }
                        if (list.empty()) {
                            require(seen.hasAll(), "the list is complete");
                            board->endedAt = wallNs();
                            board->end.give();
                        }
                    },
                    [](const kesa::Response& error) { require(false, error.getErrorMessage().c_str()); }),
                ALL);
            pauseForEver();
        });
    });
    ListedToMany result;
    result.before = static_cast<double>(residentBytes(registryd));
    forgetPeak(registryd);
    const std::int64_t cpu = registryd.cpuNs();
    const std::int64_t startedAt = wallNs();
    board->begin.give(watchers);
    for (int i = 0; i < watchers; ++i) {
        board->end.take("a watcher has the whole list");
    }
    result.wallNs = static_cast<double>(board->endedAt - startedAt);
    result.registryCpuNs = static_cast<double>(registryd.cpuNs() - cpu) / watchers;
    result.peak = static_cast<double>(peakBytes(registryd));
    return result;
}

// ---- memory -------------------------------------------------------------------------------------------------------

Footprint footprint(int count)
{
    const ChildProcess registryd = makeRegistryd();
    const auto warm = makeProvider("bench-warm", FIRST_NAME_OF_CROWD, 100);
    const auto size = [&registryd] { return static_cast<double>(residentBytes(registryd)); };
    const double empty = size();
    const auto provider = makeProvider("bench-provider", 0, count);
    const double withRecords = size();
    const auto watcher = makeWatcherOfOthers(count, false);
    return {(withRecords - empty) / count, (size() - withRecords) / count};
}

// ---- all at once --------------------------------------------------------------------------------------------------

Restart restart(int processes, int registrationsEach)
{
    struct Board {
        std::atomic<std::int64_t> allAt{0};
        Signal all;
        Signal none;
    };
    const std::size_t total = static_cast<std::size_t>(processes) * static_cast<std::size_t>(registrationsEach);
    auto registryd = std::make_unique<ChildProcess>(std::string(KESA_REGISTRYD));
    const Shared<Board> board;
    const ChildProcess watcher([&](const Ready& ready) {
        RegistryClient client("bench-watcher");
        client.switchLogOff();
        std::set<int> present;
        const kesa::Disposable query =
            client.runtime().trackServices(ALL, kesa::handler<Update>([&](const Update& update) {
                                               const int number = numberOf(update.element.path.toString());
                                               if (update.type == ResourceUpdateType::eADDED) {
                                                   require(present.insert(number).second, "no service twice");
                                               } else {
                                                   require(present.erase(number) == 1, "what goes was there");
                                               }
                                               if (present.size() == total) {
                                                   board->allAt = wallNs();
                                                   board->all.give();
                                               } else if (present.empty()) {
                                                   board->none.give();
                                               }
                                           }));
        client.sync();
        ready();
        pauseForEver();
    });
    const auto crowd = makeCrowd(processes, [&](int number) {
        return makeProvider("bench-provider-" + std::to_string(number), number * registrationsEach, registrationsEach);
    });
    board->all.take("all services are there");
    registryd.reset();
    board->none.take("all services are gone");
    const std::int64_t startedAt = wallNs();
    registryd = std::make_unique<ChildProcess>(std::string(KESA_REGISTRYD));
    const std::int64_t readyAt = wallNs();
    board->all.take("all services are there again");
    return {static_cast<double>(board->allAt - readyAt), static_cast<double>(board->allAt - startedAt)};
}

Beginning startAtOnce(int processes)
{
    struct Board {
        Signal begin;
        Signal end;
        std::atomic<std::int64_t> endedAt{0};
    };
    const ChildProcess registryd = makeRegistryd();
    const Shared<Board> board;
    const auto crowd = makeCrowd(processes, [&](int number) {
        return std::make_unique<ChildProcess>([&, number](const Ready& ready) {
            ready();
            board->begin.take("the start");
            RegistryClient client("bench-process-" + std::to_string(number));
            Signal told;
            const kesa::Disposable tracking = client.runtime().trackService(
                pathOf((number + 1) % processes), kesa::handler<Update>([&told](const Update& update) {
                    if (update.type == ResourceUpdateType::eADDED) { // the others end when all is measured
                        told.give();
                    }
                }));
            kesa::Disposable registration;
            client.registerAndWait(number, registration);
            told.take("another process's service");
            board->endedAt = wallNs();
            board->end.give();
            pauseForEver();
        });
    });
    const auto crowdCpu = [&crowd] {
        std::int64_t sum = 0;
        for (const auto& process : crowd) {
            sum += process->cpuNs();
        }
        return sum;
    };
    const std::int64_t cpu = crowdCpu();
    const std::int64_t registryCpu = registryd.cpuNs();
    const std::int64_t startedAt = wallNs();
    board->begin.give(processes);
    for (int i = 0; i < processes; ++i) {
        board->end.take("a process has started");
    }
    return {static_cast<double>(crowdCpu() - cpu) / processes,
            static_cast<double>(registryd.cpuNs() - registryCpu) / processes,
            static_cast<double>(board->endedAt - startedAt)};
}

} // namespace bench
