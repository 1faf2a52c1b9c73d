#ifndef KESA_TESTS_SIM_RUN_H
#define KESA_TESTS_SIM_RUN_H

#include "Liar.h"
#include "World.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::sim {

inline const std::vector<std::string> COLOURS = {"red", "blue"};
/// That a liar registers mostly, and others do, too.
inline const std::vector<std::string> LIARS_PATHS = {"/liar/a", "/liar/b"};

/// One run: a few processes that share paths, and actions drawn from the seed. `run` answers the broken rules.
class Run {
public:
    explicit Run(const Options& options);
    std::vector<std::string> run();
    /// Whether the process of that number may break the protocol.
    bool isLiar(std::uint64_t group) const { return m_world.isStranger(group); }

private:
    std::uint64_t draw(std::uint64_t bound) { return m_random.below(bound); }
    bool oneIn(std::uint64_t bound) { return draw(bound) == 0; }
    template <class T>
    T& pick(std::vector<T>& from)
    {
        return from[draw(from.size())];
    }
    template <class T>
    const T& pick(const std::vector<T>& from)
    {
        return from[draw(from.size())];
    }

    void drawFaults();
    void act();
    void actWhileStopped(Process& process);
    void actOf(Process& process);
    void advance();

    void registerService(Process& process);
    void subscribe(Process& process);
    serviceregistry::Query someQuery();
    std::string somePath();
    std::string someLocator();
    void dispose(Process& process);
    void disposeAgain(Process& process);

    // crowds.cpp
    commadapter::CommSettings crowdSettings(std::size_t pipeBytes);
    Wish someWish();
    void call(Process& process);
    void call(Process& process, const Subscription& subscription);
    void crowd(Process& asker);
    Client reach(Process& asker, Process& provider);
    void ask(Process& asker, Client client, std::vector<World::Issued>& issued);
    void disturb(Process& asker, Process& provider, std::vector<World::Issued>& issued);
    void pass();
    void checkHolds();
    void checkUnheld(Process& asker, const Client& client);
    void checkLastRequests(Process& asker, const Client& client);
    void checkAsked(const std::vector<World::Issued>& issued, const char* rule);

    // feeds.cpp
    struct Fed {
        Process* process;
        std::uint64_t group;
        std::weak_ptr<IKesaApi> client;
        World::Issued issued; ///< without its client, which nobody keeps for a feed
    };
    void narrow(commadapter::CommSettings& settings, std::size_t pipeBytes);
    void feed(Process& process);
    void openFeed(Process& process);
    void cancelFeed(const Fed& fed);

    // sequences.cpp
    World::Offer offerOf(const std::string& path);
    std::vector<std::string> pathsOf(const Process& process);
    void change(Process& process);
    void restart(Process& process);
    void usurp(Process& process);
    void followClosely(Process& process);
    void claimAgain(Process& process);
    void loseWhatIsOnItsWay(Process& process);
    void leaveBehind(Process& process);
    void keepBusy(Process& process);
    void lose(Process& process);
    void fewSteps(std::uint64_t most);

    // lies.cpp
    void bringLiar();
    void endLiar();
    void lie();
    void believe(Process& process);
    std::string rubbish(std::size_t most);
    std::string someHello();
    std::uint32_t someNumber();
    std::string someFrames();
    std::string someFrame();
    std::string fatalFrame();
    std::string askWithoutEnd();
    std::string claims();
    std::string someRoads(const std::string& path);
    std::optional<std::string> answerOf(std::string_view frame);
    std::string unasked();
    std::string answerToAttach(std::uint32_t target);
    std::string answerToRequest(std::uint32_t stream);

    Options m_options;
    SeededRandom m_random;
    SeededRandom m_networkRandom;
    World m_world;
    std::size_t m_pipeBytes = 0;
    std::size_t m_fillerBytes = 0;
    bool m_isCrowded = false; ///< many ask at once, and queues are small
    bool m_hasFragments = false;
    bool m_isFeeding = false; ///< services give more values than their askers handle
    std::vector<Fed> m_feeds;
    std::vector<std::string> m_instances; ///< that the liar has read in hellos
    bool m_isLiarTrusted = false;
    std::unique_ptr<Liar> m_liar; ///< null in most runs
};

} // namespace kesa::sim

#endif
