#ifndef KESA_TESTS_SIM_WORLD_H
#define KESA_TESTS_SIM_WORLD_H

#include "Observers.h"

#include <comm/SimulatedScheduler.h>
#include <kesa/Disposable.h>
#include <kesa/IKesaApi.h>
#include <kesa/commadapter/IBackend.h>
#include <obr/Random.h>
#include <runtime/v02/runtime/KesaRuntimeImpl.h>
#include <transport/MemoryNetwork.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kesa::sim {

struct BackendBooks;

struct Options {
    std::uint64_t seed = 1;
    unsigned steps = 150;
    bool threads = false; ///< real loops instead of the simulated ones: not repeatable, for the sanitizers
};

/// A few processes on one network, driven by one seed: they register, track, query, resolve, call, dispose, are killed
/// and start again, on paths they share. `run` answers the broken rules.
class World {
public:
    explicit World(const Options& options);
    ~World();

    std::vector<std::string> run();

private:
    enum class Stream { eTRACK, eQUERY, eRESOLVE, eTRACK_RESOLVE, eQUERY_RESOLVE };
    struct Subscription {
        Stream kind;
        std::string target; ///< path, pattern or locator
        Disposable disposable;
        std::shared_ptr<Belief> belief;
        bool disposed = false;
    };
    struct Registration {
        std::string path;
        Disposable disposable;
        std::shared_ptr<Belief> belief;
    };
    class Service;
    struct Process {
        std::string name;
        std::uint64_t group = 0;
        std::unique_ptr<runtime::v02::KesaRuntimeImpl> runtime;
        std::shared_ptr<BackendBooks> books;
        std::vector<Subscription> subscriptions;
        std::vector<Registration> registrations;
        std::vector<std::shared_ptr<Belief>> answers;
        std::vector<std::shared_ptr<Service>> services;
    };

    std::uint64_t draw(std::uint64_t bound) { return m_random.below(bound); }
    template <class T>
    T& pick(std::vector<T>& from)
    {
        return from[draw(from.size())];
    }

    void act();
    void start(Process& process);
    void kill(Process& process);
    void shutdown(Process& process);
    void registerService(Process& process);
    void subscribe(Process& process);
    void dispose(Process& process);
    void disposeAgain(Process& process);
    void call(Process& process);
    void answer(Process& process);
    void advance();

    /// Faults off; waits until nothing moves any more, or every observer believes the truth.
    void settle();
    void disposeAll();
    std::unique_ptr<commadapter::IBackend> makeBackend(const std::string& name);
    std::vector<std::string> differences() const;
    std::string differenceOf(const Process& process, const Subscription& subscription) const;
    std::set<std::string> expectedOf(const Process& process, const Subscription& subscription) const;
    void checkEnds(Process& process);
    bool provides(const std::string& process, const std::string& path) const;
    bool registered(const Process& process, const std::string& path) const;
    static std::string document();
    std::string somePath();

    struct SeededRandom final : obr::Random {
        std::uint64_t state = 0;
        std::uint64_t next() override;
    };

    Options m_options;
    SeededRandom m_random;
    SeededRandom m_kesaRandom;
    std::unique_ptr<comm::SimulatedScheduler> m_scheduler;
    std::unique_ptr<Verdict> m_verdict;
    std::unique_ptr<commadapter::transport::MemoryNetwork> m_network;
    std::vector<std::unique_ptr<Process>> m_processes;
    std::uint64_t m_groups = 0;
    unsigned m_names = 0;
    bool m_isRefusing = false; ///< backends refuse some client objects
};

} // namespace kesa::sim

#endif
