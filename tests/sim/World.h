#ifndef KESA_TESTS_SIM_WORLD_H
#define KESA_TESTS_SIM_WORLD_H

#include "Call.h"
#include "Process.h"
#include "Random.h"

#include <backend/CommBackend.h>
#include <comm/SimulatedScheduler.h>
#include <kesa/commadapter/IBackend.h>
#include <transport/MemoryNetwork.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kesa::sim {

struct Options {
    std::uint64_t seed = 1;
    unsigned steps = 150;
    bool threads = false;  ///< real loops instead of the simulated ones: not repeatable, for the sanitizers
    bool registry = false; ///< a registry in a process of its own, instead of configured services
    unsigned crowds = 20;  ///< one of so many runs is crowded
    unsigned feeds = 5;    ///< in one of so many runs services give more values than their askers handle; 0: in none
    unsigned liars = 5;    ///< one of so many runs has a process that keeps no rule; 0, and with threads: none
};

inline constexpr const char* REGISTRY_PROCESS = "kesa-registryd";
inline constexpr const char* REGISTRY_PATH = "/registry";
/// Configured services, without a registry: the first half is of "p0", the rest of "p1".
inline const std::vector<std::string> STATIC_PATHS = {"/s/a", "/s/b", "/s/c", "/s/d"};
inline const std::vector<std::string> DYNAMIC_PATHS = {"/d/a", "/d/b", "/d/c"};
inline const std::string MALFORMED_PATTERN = "/d/[a-";
inline constexpr const char* IO_LOOP = "kesa-io";

std::string ownerOf(const std::string& staticPath);
bool isStatic(const std::string& path);

/// Processes on one network, everything that can be done to them, and what has to be true of them. Units: processes
/// (processes.cpp), what their programs do (programs.cpp), what they ask each other (calls.cpp), what must be true
/// (expectations.cpp, endings.cpp, Call.cpp).
class World {
public:
    explicit World(const Options& options);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    Process& add(const std::string& name);
    Process& registry();
    std::vector<std::unique_ptr<Process>>& processes() { return m_processes; }
    commadapter::transport::MemoryNetwork& network() { return *m_network; }
    /// Null with real threads.
    comm::SimulatedScheduler* scheduler() { return m_scheduler.get(); }
    Verdict& verdict() { return *m_verdict; }
    bool hasRegistry() const { return m_options.registry; }
    /// Backends refuse some client objects from now on.
    void refuseSome(bool refuses) { m_isRefusing = refuses; }
    void setBackendSettings(const commadapter::CommSettings& settings, const commadapter::CommSettings& ofTheRegistry)
    {
        m_settings = settings;
        m_registrySettings = ofTheRegistry;
    }
    /// How much a service answers at most when it answers much, and how much of it may be under way to one client; 0:
    /// is not known.
    void setAnswers(std::size_t largest, std::size_t underWay)
    {
        m_largestAnswer = largest;
        m_mostUnderWay = underWay;
    }

    /// See `Calls::boundFeeds`.
    void boundFeeds(const FeedBounds& bounds) { m_calls.boundFeeds(bounds); }

    void start(Process& process);
    /// The same; to whomever it says hello it says that it is `other`.
    void startPosing(Process& process, const Process& other);
    /// From one moment to the next: its loops never run again, its network ends, nothing is said.
    void kill(Process& process);
    /// As on SIGTERM.
    void end(Process& process);
    /// As by SIGSTOP and SIGCONT. Nothing may be done to a stopped process but killing and continuing it.
    void stop(Process& process);
    void resume(Process& process);
    /// One of its loops runs nothing for so long, while everything else goes on.
    void leaveBehind(Process& process, const std::string& loop, comm::TimeNs time);

    /// Makes one that is no runtime of ours, and may do anything.
    void addStranger(std::int64_t uid, const std::function<void(std::uint64_t group)>& make);
    /// The last one.
    void killStranger();
    bool isStranger(std::uint64_t group) const { return m_strangers.count(group) != 0; }
    /// That it may get, or be refused.
    void noteClaim(const std::string& path);

    struct Offer {
        std::string path;
        ServiceDef::TypeEnum type = ServiceDef::TypeEnum::pex;
        std::string colour = "red";
        std::size_t fillerBytes = 0; ///< makes the record large
    };
    void registerService(Process& process, const Offer& offer);
    bool isInForce(const Registration& registration);
    /// Why the registry does not have it, from the process whose it is; empty while it does.
    std::string whyNotHeld(const Process& process, const Registration& registration);
    void subscribe(Process& process, Stream kind, const std::string& target);
    void subscribe(Process& process, Stream kind, const serviceregistry::Query& query);
    void dispose(Subscription& subscription);

    struct Issued {
        Client client;
        void* handle = nullptr;
        std::shared_ptr<Call> call;
    };
    Issued issue(Process& process, const Client& client, const Wish& wish);
    /// As its asker, who lives and does not stand still.
    void cancel(const Issued& issued);
    /// The process handles so many values of each feed that it has heard.
    void handleFeeds(std::uint64_t group, std::size_t most);
    /// All processes handle all values, from now on at once.
    void handleFeeds();
    /// One that the subscription has; not the registry's. Null when it has none.
    Client clientOf(const Subscription& subscription);
    /// By a record of its own, or since somebody looks for it.
    bool mayLeadToLiar(const Subscription& subscription);
    /// One that the asker has by a locator of the provider's; null when it has none.
    Client clientTo(const Process& asker, const Process& provider);

    /// Waits until nothing moves any more, or every observer believes the truth; then asks all clients who answers.
    void settle();
    /// Everything is taken back: nobody holds anything any more.
    void disposeAll();
    /// Ends all.
    void endAll();

private:
    std::unique_ptr<commadapter::IBackend> makeBackend(const std::string& name);
    void startRegistry(Process& process);
    std::string document() const;
    void letGo(Process& process, bool isKilled);
    template <class T>
    std::unique_ptr<IResponseHandler<T>> observer(std::shared_ptr<Belief> belief)
    {
        return std::make_unique<Observer<T>>(*m_verdict, std::move(belief));
    }
    void add(Process& process, Subscription subscription);

    // expectations.cpp and endings.cpp, with the verdict's mutex held.
    using Truth = std::map<std::string, std::shared_ptr<Belief>>; ///< registrations by path; null: any

    std::unique_lock<std::mutex> runUntil(comm::TimeNs simulated, const std::function<bool()>& isTrue);
    std::vector<std::string> differences();
    std::vector<std::string> registryDifferences();
    std::vector<std::string> callDifferences() const;
    std::string differenceOf(const Process& process, const Subscription& subscription);
    std::string endOf(const Process& process, const Subscription& subscription) const;
    Truth truthOf(const Process& process);
    Truth expectedOf(const Process& process, const Subscription& subscription);
    std::string shownBy(const Subscription& subscription, const Truth& expected) const;
    std::shared_ptr<Belief> provided(const std::string& process, const std::string& path) const;
    static std::shared_ptr<Belief> registered(const Process& process, const std::string& path);
    bool isTakenBack();
    bool asksTheRegistry(const std::string& process);
    void checkEnds(Process& process);
    void checkRefusals();
    bool isDoubleClaim(const Belief& refused) const;
    void askAll();

    Options m_options;
    SeededRandom m_random; ///< Kesa's, and what happens inside
    std::unique_ptr<comm::SimulatedScheduler> m_scheduler;
    std::unique_ptr<Verdict> m_verdict;
    std::unique_ptr<commadapter::transport::MemoryNetwork> m_network;
    commadapter::CommSettings m_settings;
    commadapter::CommSettings m_registrySettings;
    std::size_t m_largestAnswer = 9000;
    std::size_t m_mostUnderWay = 0;
    Calls m_calls;
    std::vector<std::unique_ptr<Process>> m_processes;
    std::uint64_t m_groups = 0;
    std::set<std::uint64_t> m_strangers;
    unsigned m_names = 0;
    bool m_isRefusing = false;
    comm::TimeNs m_timeStopped = 0; ///< of all stops together, and of loops left behind
    std::map<std::uint64_t, comm::TimeNs> m_stoppedAt;
    std::map<std::uint64_t, comm::TimeNs> m_ioBehindUntil;

    /// Every registration there ever was.
    struct Claim {
        std::string path;
        std::uint64_t group;
        std::shared_ptr<Belief> belief;
    };
    std::vector<Claim> m_claims;
};

} // namespace kesa::sim

#endif
