#include "orders.h"

#include "World.h"

#include <algorithm>
#include <array>

namespace kesa::sim {

namespace {

constexpr const char* PATH = "/d/a";

/// How the registry dies, and when it comes back: after `after` of the three have started.
struct Death {
    std::size_t after = 0; ///< 0: it does not
    bool isKilled = false;
    bool returnsLast = false; ///< once the others have started
};

class Order {
public:
    Order(std::uint64_t seed, const std::array<std::string, 3>& names, const Death& death)
        : m_names(names), m_death(death), m_world({seed, 0, false, true})
    {
        m_random.state = seed;
        m_world.add(REGISTRY_PROCESS);
        m_world.add("provider");
        m_world.add("watcher");
    }

    std::vector<std::string> run()
    {
        for (std::size_t index = 0; index < m_names.size(); ++index) {
            begin(m_names[index]);
            pause();
            if (m_death.after == index + 1) {
                die();
                pause();
            }
        }
        if (!m_world.registry().runtime) {
            m_world.start(m_world.registry());
        }
        m_world.settle();
        const Belief& belief = *process("watcher").subscriptions.front().belief;
        if (!belief.present.count(PATH) || !belief.present.at(PATH)) {
            m_world.verdict().fail("the watcher sees the provider", text());
        }
        m_world.disposeAll();
        m_world.endAll();
        std::vector<std::string> failures = m_world.verdict().failures();
        for (std::string& failure : failures) {
            failure += " (" + text() + ")";
        }
        return failures;
    }

private:
    Process& process(const std::string& name)
    {
        return **std::find_if(m_world.processes().begin(), m_world.processes().end(),
                              [&name](const auto& each) { return each->name == name; });
    }

    void begin(const std::string& name)
    {
        Process& starting = process(name);
        if (starting.runtime) {
            return;
        }
        m_world.start(starting);
        if (name == "provider") {
            m_world.registerService(starting, {PATH});
        } else if (name == "watcher") {
            m_world.subscribe(starting, Stream::eTRACK, PATH);
            m_world.subscribe(starting, Stream::eQUERY, serviceregistry::Query("/d/**"));
            m_world.subscribe(starting, Stream::eTRACK_RESOLVE, PATH);
            m_world.subscribe(starting, Stream::eQUERY_RESOLVE, serviceregistry::Query("**"));
        }
    }

    void die()
    {
        Process& registry = m_world.registry();
        if (m_death.isKilled) {
            m_world.kill(registry);
        } else {
            m_world.end(registry);
        }
        pause();
        if (!m_death.returnsLast) {
            m_world.start(registry);
        }
    }

    /// The next may come at once, in the middle of what happens, or when nothing moves any more.
    void pause()
    {
        switch (m_random.below(3)) {
        case 0:
            break;
        case 1:
            for (std::uint64_t count = m_random.below(60); count > 0; --count) {
                m_world.scheduler()->step();
            }
            break;
        default:
            m_world.scheduler()->runFor(3 * comm::SECOND);
        }
    }

    std::string text() const
    {
        std::string order = m_names[0] + ", " + m_names[1] + ", " + m_names[2];
        if (m_death.after > 0) {
            order += std::string("; the registry ") + (m_death.isKilled ? "is killed" : "ends") + " after " +
                     std::to_string(m_death.after) + (m_death.returnsLast ? ", returns last" : ", returns at once");
        }
        return order;
    }

    const std::array<std::string, 3> m_names;
    const Death m_death;
    SeededRandom m_random;
    World m_world;
};

} // namespace

std::vector<std::string> runOrders(std::uint64_t seed)
{
    std::vector<std::string> failures;
    std::array<std::string, 3> names = {REGISTRY_PROCESS, "provider", "watcher"}; // ascending
    do {
        const auto begun =
            static_cast<std::size_t>(std::find(names.begin(), names.end(), REGISTRY_PROCESS) - names.begin()) + 1;
        std::vector<Death> deaths(1);
        for (std::size_t after = begun; after <= names.size(); ++after) {
            for (const bool isKilled : {false, true}) {
                deaths.push_back({after, isKilled, false});
                deaths.push_back({after, isKilled, true});
            }
        }
        for (const Death& death : deaths) {
            const std::vector<std::string> found = Order(seed, names, death).run();
            failures.insert(failures.end(), found.begin(), found.end());
        }
    } while (std::next_permutation(names.begin(), names.end()));
    return failures;
}

} // namespace kesa::sim
