#include "Cast.h"
#include "system/Stage.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kesa::scenarios {

namespace {

using system_test::Options;
using system_test::Process;
using system_test::Stage;

class RealCast final : public Cast {
public:
    explicit RealCast(const Scenario& scenario) : m_services(scenario.services) {}

    void start(const std::string& who, const std::string& comm) override
    {
        Options options;
        options.comm = comm.empty() ? "{}" : comm;
        options.hasRegistry = !m_services;
        options.services = m_services.value_or(std::vector<std::string>());
        m_members[who] = who == REGISTRY ? &m_stage.launchRegistry(options) : &m_stage.launch(who, options);
    }
    void pose(const std::string&, const std::string&) override
    {
        throw Mistake("real processes do not lie: add \"only-simulated: REASON\"");
    }
    void kill(const std::string& who) override
    {
        of(who).kill();
        m_stopped.erase(who);
    }
    void quit(const std::string& who) override
    {
        if (who == REGISTRY) {
            of(who).expect("kesa-registryd: ready at"); // before that, the signal may end it in any way
            of(who).signal(SIGTERM);
        } else {
            of(who).send("quit");
        }
        if (const int status = of(who).expectEnd(); status != 0) {
            throw Mistake(who + " ends with status " + std::to_string(status));
        }
    }
    void stop(const std::string& who) override
    {
        of(who).stop();
        m_stopped.insert(who);
    }
    void resume(const std::string& who) override
    {
        of(who).resume();
        m_stopped.erase(who);
    }
    void cut(const std::string&, const std::string&) override
    {
        throw Mistake("connections of real processes cannot be cut: add \"only-simulated: REASON\"");
    }
    void leaveBehind(const std::string&, const std::string&, std::chrono::milliseconds) override
    {
        throw Mistake("loops of real processes cannot be left behind: add \"only-simulated: REASON\"");
    }
    /// Returns when it has obeyed, so that the order of the steps is that of the commands.
    void tell(const std::string& who, const std::string& line) override
    {
        of(who).send(line);
        if (m_stopped.count(who) == 0) {
            of(who).send("say obeyed");
            of(who).expect("obeyed");
        }
    }
    void begin(const std::string& step) override { m_step = step; }
    std::optional<std::string> hears(const std::string& who, const std::string& beginning) override
    {
        std::optional<std::string> rest = hearsWithin(SILENT, who, beginning);
        if (!rest) {
            std::fprintf(stderr, "%s\n  waits for that up to %d s more\n", m_step.c_str(),
                         static_cast<int>(MORE.count()));
            rest = hearsWithin(MORE, who, beginning);
        }
        return rest;
    }
    const actor::Told& told(const std::string& who) override { return of(who).told(); }
    std::string hint(const std::string& who) override
    {
        const std::string all = of(who).traces();
        return "its traces:\n" + all.substr(all.size() - std::min<std::size_t>(all.size(), 6000));
    }
    void pause() override {}

    std::string end() override
    {
        std::string broken;
        for (Process& process : m_stage.processes()) {
            process.resume();
            broken += Stage::complaintAbout(process);
            if (const std::string bad = process.findBad(); !bad.empty()) {
                broken += process.name() + ": " + bad + '\n' + process.traces();
            }
        }
        return broken;
    }

private:
    /// A scenario has one thing to wait for at a time: what does not come within seconds does not come.
    static constexpr std::chrono::seconds SILENT{3};
    static constexpr std::chrono::seconds MORE{27};

    std::optional<std::string> hearsWithin(std::chrono::seconds limit, const std::string& who,
                                           const std::string& beginning)
    {
        try {
            return of(who).expect(beginning, limit);
        } catch (const system_test::Missing&) {
            return std::nullopt;
        }
    }
    Process& of(const std::string& who) { return *m_members.at(who); }

    const std::optional<std::vector<std::string>> m_services;
    Stage m_stage;
    std::map<std::string, Process*> m_members;
    std::set<std::string> m_stopped;
    std::string m_step;
};

} // namespace

std::unique_ptr<Cast> makeRealCast(const Scenario& scenario)
{
    return std::make_unique<RealCast>(scenario);
}

} // namespace kesa::scenarios
