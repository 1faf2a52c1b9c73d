#ifndef BENCH_REGISTRY_CROWDS_H
#define BENCH_REGISTRY_CROWDS_H

#include "ChildProcess.h"
#include "RunDirectory.h"
#include "Shared.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace bench {

/// The configuration of processes that find each other through `kesa-registryd`.
extern const char* const WITH_REGISTRY;

/// Memory of a process, in bytes, as the kernel counts it.
std::size_t residentBytes(const ChildProcess& process);
/// The most since the last `forgetPeak`.
std::size_t peakBytes(const ChildProcess& process);
void forgetPeak(const ChildProcess& process);

/// Processes that each do the same: `one(number)` makes the one with that number.
template <class Make>
std::vector<std::unique_ptr<ChildProcess>> makeCrowd(int count, const Make& one)
{
    std::vector<std::unique_ptr<ChildProcess>> crowd;
    for (int number = 0; number < count; ++number) {
        crowd.push_back(one(number));
    }
    return crowd;
}

/// A registry of its own with so many names and so many watchers in it, and a process that registers beside them.
class World {
public:
    struct Population {
        int names = 0;
        int othersWatchers = 0; ///< watchers of other paths, every second one with a pattern
        int watchers = 0;       ///< of the path that is registered, from ten connections or from one
    };
    explicit World(const Population& population);

    struct Cost {
        double wallNs = 0;     ///< until a registration is confirmed
        double registryNs = 0; ///< CPU time of the registry for a registration and its withdrawal
        double fanOutNs = 0;   ///< until the last of `watchers` is told
    };
    /// Of one registration, the mean of a batch.
    Cost registrations();

private:
    struct Board {
        Signal begin;
        Signal end;
        std::atomic<std::int64_t> wallNs{0};
        std::atomic<std::int64_t> fanOutNs{0};
        std::atomic<std::int64_t> toldAt{0};
        std::atomic<int> told{0};
        Signal allTold;
    };

    const Population m_population;
    RunDirectory m_directory;
    Shared<Board> m_board;
    ChildProcess m_registryd;
    std::vector<std::unique_ptr<ChildProcess>> m_crowd;
    std::unique_ptr<ChildProcess> m_client;
};

/// What a registry has to list, `count` records with that much information each.
struct Listing {
    int count = 0;
    std::size_t informationBytes = 0;
};
/// Until the runtime of a new process that is connected has told its query of all: the median of so many.
double firstList(const Listing& listing, int samples);

struct ListedToMany {
    double wallNs = 0;        ///< until the last of them has all
    double registryCpuNs = 0; ///< for one of them
    double before = 0;        ///< bytes of the registry
    double peak = 0;
};
/// The same for so many processes at the same moment, which only read and count.
ListedToMany firstListForMany(const Listing& listing, int watchers);

struct Footprint {
    double record = 0;
    double watcher = 0;
};
/// Bytes by which the registry grows for each of so many records, and for each watcher of a path.
Footprint footprint(int count);

struct Restart {
    double fromReadyNs = 0;
    double fromStartNs = 0; ///< of the new registry's process
};
/// The registry is killed and started again; until a watcher has been told of all that the processes have registered.
Restart restart(int processes, int registrationsEach);

struct Beginning {
    double cpuNs = 0;         ///< of one of the processes
    double registryCpuNs = 0; ///< for one of the processes
    double wallNs = 0;        ///< until the last one is done
};
/// So many processes start at the same moment: each registers a service and is told of another's.
Beginning startAtOnce(int processes);

} // namespace bench

#endif
