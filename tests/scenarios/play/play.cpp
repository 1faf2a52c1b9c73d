#include "Cast.h"

#include <functional>
#include <map>
#include <sstream>

namespace kesa::scenarios {

namespace {

class Play {
public:
    Play(const Scenario& scenario, Cast& cast) : m_scenario(scenario), m_cast(cast) {}

    std::string run()
    {
        for (const Step& step : m_scenario.steps) {
            const std::string text = m_scenario.at(step.line) + step.who + ' ' + step.command + ' ' + step.arguments;
            m_cast.begin(text);
            const std::string failure = failureOf(step);
            if (!failure.empty()) {
                return text + "\n  " + failure + "\n  " + step.who + " told:\n" + eventsOf(step.who) + "  " +
                       m_cast.hint(step.who) + '\n';
            }
            m_cast.pause();
        }
        const std::string broken = m_cast.end();
        return broken.empty() ? broken : m_scenario.at(m_scenario.steps.back().line) + "at the end\n" + broken;
    }

private:
    std::string failureOf(const Step& step)
    {
        try {
            return resultOf(step);
        } catch (const std::exception& wrong) {
            return wrong.what();
        }
    }

    std::string resultOf(const Step& step)
    {
        static const std::map<std::string, std::function<void(Cast&, const Step&)>> STAGE = {
            {"start", [](Cast& cast, const Step& is) { cast.start(is.who, is.arguments); }},
            {"pose", [](Cast& cast, const Step& is) { cast.pose(is.who, is.arguments); }},
            {"kill", [](Cast& cast, const Step& is) { cast.kill(is.who); }},
            {"quit", [](Cast& cast, const Step& is) { cast.quit(is.who); }},
            {"stop", [](Cast& cast, const Step& is) { cast.stop(is.who); }},
            {"continue", [](Cast& cast, const Step& is) { cast.resume(is.who); }},
            {"cut", [](Cast& cast, const Step& is) { cast.cut(is.who, is.arguments); }},
            {"behind",
             [](Cast& cast, const Step& is) {
                 std::istringstream words(is.arguments);
                 std::string loop;
                 int milliseconds = 0;
                 words >> loop >> milliseconds;
                 cast.leaveBehind(is.who, loop, std::chrono::milliseconds(milliseconds));
             }},
        };
        if (step.command == "expect" || step.command == "expect-some") {
            return expect(step);
        }
        if (step.command == "hears") {
            return m_cast.hears(step.who, step.arguments) ? "" : "has not heard that";
        }
        if (step.command == "unheard") {
            const std::string event = m_cast.told(step.who).find(step.arguments);
            return event.empty() ? "" : "has heard \"" + event + '"';
        }
        const auto stage = STAGE.find(step.command);
        if (stage != STAGE.end()) {
            stage->second(m_cast, step);
            if ((step.command == "start" || step.command == "pose") && step.who != REGISTRY) {
                m_cast.tell(step.who, "narrate");
            }
        } else {
            m_cast.tell(step.who, step.command + ' ' + step.arguments);
        }
        return {};
    }

    std::string expect(const Step& step)
    {
        const std::string id = std::to_string(++m_questions);
        const std::string facts = step.arguments == "nothing" ? "" : step.arguments;
        m_cast.tell(step.who, step.command + ' ' + id + ' ' + facts);
        if (m_cast.hears(step.who, "true " + id)) {
            return {};
        }
        m_cast.tell(step.who, "beliefs");
        return "believes " + m_cast.hears(step.who, "beliefs").value_or("what it does not say any more");
    }

    std::string eventsOf(const std::string& who)
    {
        std::string text;
        for (const std::string& event : m_cast.told(who).events()) {
            text += event == "obeyed" ? "" : "    " + event + '\n';
        }
        return text;
    }

    const Scenario& m_scenario;
    Cast& m_cast;
    int m_questions = 0;
};

} // namespace

std::string play(const Scenario& scenario, Cast& cast)
{
    return Play(scenario, cast).run();
}

} // namespace kesa::scenarios
