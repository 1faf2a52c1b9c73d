#include "Cast.h"
#include "actor/complaintAbout.h"
#include "actor/document.h"
#include "sim/World.h"

#include <backend/readCommSettings.h>
#include <util/config/JSONParser.h>

#include <map>
#include <utility>
#include <vector>

namespace kesa::scenarios {

namespace {

using sim::World;

constexpr comm::TimeNs LIMIT = 60 * comm::SECOND;
constexpr comm::TimeNs NEWS_TIME = 3 * comm::SECOND; ///< in which bad news comes, if there is any

commadapter::CommSettings settingsOf(const std::string& comm)
{
    util::config::Value value;
    if (util::config::JSONParser().parseString(comm, value)) {
        throw Mistake("\"comm\" " + comm + ": no JSON");
    }
    commadapter::CommFaults faults;
    auto settings = commadapter::readCommSettings(value, faults);
    if (!faults.complaints.empty()) {
        throw Mistake(faults.complaints.front().sentence(comm));
    }
    return settings;
}

class SimulatedCast final : public Cast {
public:
    SimulatedCast(const Scenario& scenario, std::uint64_t seed)
        : m_scenario(scenario), m_seed(seed), m_world({seed, 0, false, !scenario.services})
    {
        m_random.state = seed * 2 + 1;
        m_networkRandom.state = seed ^ 0x5A5A5A5AULL;
        if (!scenario.services) {
            m_members[REGISTRY].process = &m_world.add(sim::REGISTRY_PROCESS);
        }
        drawFaults();
    }

    void start(const std::string& who, const std::string& comm) override { start(who, comm, nullptr); }
    void pose(const std::string& who, const std::string& other) override { start(who, {}, running(other).process); }
    void kill(const std::string& who) override
    {
        Member& member = running(who);
        member.late.clear();
        member.told = std::make_shared<actor::Told>(*member.told); // what its dead loops would say is said to nobody
        m_world.kill(*member.process);
    }
    void quit(const std::string& who) override { m_world.end(*running(who).process); }
    void stop(const std::string& who) override { m_world.stop(*running(who).process); }
    void resume(const std::string& who) override
    {
        Member& member = running(who);
        m_world.resume(*member.process);
        for (const std::string& line : std::exchange(member.late, {})) {
            tell(who, line);
        }
    }
    void cut(const std::string& who, const std::string& other) override
    {
        m_world.network().cut(running(who).process->group, running(other).process->group);
    }
    void leaveBehind(const std::string& who, const std::string& loop, std::chrono::milliseconds time) override
    {
        static const std::map<std::string, std::string> NAMES = {
            {"executor", "KesaRuntimeImpl.m_executor"}, {"updater", "KesaRuntimeImpl.m_updater"}, {"io", sim::IO_LOOP}};
        const auto name = NAMES.find(loop);
        if (name == NAMES.end()) {
            throw Mistake("there is no loop \"" + loop + "\"; there are executor, updater and io");
        }
        m_world.leaveBehind(*running(who).process, name->second, std::chrono::nanoseconds(time).count());
    }
    void tell(const std::string& who, const std::string& line) override
    {
        Member& member = running(who);
        if (member.process->isStopped) {
            member.late.push_back(line);
        } else {
            member.process->actor->obey(line);
        }
    }
    std::optional<std::string> hears(const std::string& who, const std::string& beginning) override
    {
        actor::Told& told = *m_members[who].told;
        const comm::TimeNs deadline = comm::now() + LIMIT;
        auto heard = told.take(beginning);
        while (!heard && comm::now() < deadline) {
            if (!m_world.scheduler()->step()) {
                m_world.scheduler()->runFor(comm::MILLISECOND);
            }
            heard = told.take(beginning);
        }
        return heard;
    }
    const actor::Told& told(const std::string& who) override { return *m_members[who].told; }
    std::string hint(const std::string&) override
    {
        return "this one again, with every trace: --seed " + std::to_string(m_seed) + " --verbose " + m_scenario.file;
    }
    void pause() override
    {
        switch (m_random.below(4)) {
        case 0: // none: the next command races
            break;
        case 1:
            m_world.scheduler()->runReady();
            break;
        case 2:
            m_world.scheduler()->runFor(static_cast<comm::TimeNs>(m_random.below(200)) * comm::MILLISECOND);
            break;
        default:
            for (std::uint64_t count = m_random.below(40); count > 0; --count) {
                m_world.scheduler()->step();
            }
        }
    }

    std::string end() override
    {
        m_world.network().setFaults({});
        for (auto& [who, member] : m_members) {
            if (member.process->isStopped) {
                resume(who);
            }
        }
        if (!m_scenario.services && !m_world.registry().runtime) {
            start(REGISTRY, {});
        }
        m_world.scheduler()->runFor(NEWS_TIME);
        for (auto& [who, member] : m_members) {
            look(who);
        }
        m_world.disposeAll();
        m_world.endAll();
        for (const std::string& failure : m_world.verdict().failures()) {
            m_broken += "  " + failure + '\n';
        }
        return m_broken;
    }

private:
    struct Member {
        sim::Process* process = nullptr;
        std::shared_ptr<actor::Told> told = std::make_shared<actor::Told>();
        std::vector<std::string> late{}; ///< what it was told while it stood still
    };

    void start(const std::string& who, const std::string& comm, const sim::Process* posesAs)
    {
        Member& member = m_members[who];
        if (member.process == nullptr) {
            member.process = &m_world.add(who);
        }
        look(who);
        const std::string settings = comm.empty() ? "{}" : comm;
        member.told = std::make_shared<actor::Told>();
        member.process->settings = settingsOf(settings);
        if (who != REGISTRY) {
            const auto& services = m_scenario.services;
            member.process->document =
                actor::document(!services, services.value_or(std::vector<std::string>()), settings);
        }
        if (posesAs == nullptr) {
            m_world.start(*member.process);
        } else {
            m_world.startPosing(*member.process, *posesAs);
        }
        if (who != REGISTRY) {
            member.process->actor = std::make_unique<actor::Actor>(
                *member.process->runtime, [told = member.told](const std::string& event) { told->add(event); });
        }
    }

    Member& running(const std::string& who)
    {
        Member& member = m_members[who];
        if (member.process == nullptr || !member.process->runtime) {
            throw Mistake('"' + who + "\" does not run");
        }
        return member;
    }

    /// At what its actor has told, once it tells nothing more.
    void look(const std::string& who)
    {
        const actor::Told& told = *m_members[who].told;
        std::string complaint = actor::complaintAbout(told.events());
        if (complaint.empty()) {
            complaint = told.findBad();
        }
        if (!complaint.empty()) {
            m_broken += "  " + who + ": " + complaint + '\n';
        }
    }

    /// None of these changes what must be true in the end.
    void drawFaults()
    {
        commadapter::transport::MemoryNetwork::Faults faults;
        if (m_random.below(3) != 0) {
            faults.draw = [this](std::uint64_t bound) { return m_networkRandom.below(bound); };
            faults.shortWritePercent = static_cast<unsigned>(m_random.below(2) * m_random.below(60));
            faults.shortReadPercent = static_cast<unsigned>(m_random.below(2) * m_random.below(60));
            faults.refusePercent = static_cast<unsigned>(m_random.below(2) * m_random.below(50));
            faults.longestDelay = static_cast<comm::TimeNs>(m_random.below(2) * m_random.below(20)) * comm::MILLISECOND;
        }
        m_world.network().setFaults(faults);
    }

    const Scenario& m_scenario;
    const std::uint64_t m_seed;
    sim::SeededRandom m_random;
    sim::SeededRandom m_networkRandom;
    std::map<std::string, Member> m_members;
    std::string m_broken;
    World m_world;
};

} // namespace

std::unique_ptr<Cast> makeSimulatedCast(const Scenario& scenario, std::uint64_t seed)
{
    return std::make_unique<SimulatedCast>(scenario, seed);
}

} // namespace kesa::scenarios
