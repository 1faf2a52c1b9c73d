#include "Scenario.h"

#include "actor/Actor.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kesa::scenarios {

namespace {

const std::vector<std::string> OF_THE_STAGE = {"start",    "pose",  "kill",    "quit", "stop",
                                               "continue", "hears", "unheard", "cut",  "behind"};
const std::vector<std::string> OF_PROCESSES = {"fork", "spawn", "handle-term"};
constexpr const char* BLANKS = " \t\r";

bool contains(const std::vector<std::string>& words, const std::string& word)
{
    return std::find(words.begin(), words.end(), word) != words.end();
}

std::string restOf(std::istream& words)
{
    std::string rest;
    std::getline(words >> std::ws, rest);
    return rest;
}

class Reader {
public:
    explicit Reader(const std::string& file) { m_scenario.file = file; }

    Scenario read()
    {
        if (!std::filesystem::is_regular_file(m_scenario.file)) {
            throw Mistake(m_scenario.file + ": there is no such file, or it is none; name a scenario");
        }
        std::ifstream file(m_scenario.file);
        if (!file) {
            throw Mistake(m_scenario.file + ": it cannot be read");
        }
        std::string text;
        while (std::getline(file, text)) {
            ++m_line;
            text.erase(text.find_last_not_of(BLANKS) + 1); // what an editor leaves, and the end of a line of Windows
            text.erase(0, text.find_first_not_of(BLANKS));
            if (text.empty() || text.front() == '#') {
                m_hasTruth = m_hasTruth || text.size() > 2;
                continue;
            }
            std::istringstream words(text);
            std::string first;
            words >> first;
            first.back() == ':' ? readHeader(first, restOf(words)) : readStep(first, words);
        }
        if (!m_hasTruth || m_scenario.steps.empty()) {
            mistake("it has no steps, or no line \"# ...\" that says what must be true");
        }
        return m_scenario;
    }

private:
    void readHeader(const std::string& header, const std::string& value)
    {
        if (!m_scenario.steps.empty()) {
            mistake("\"" + header + "\" comes before all steps");
        }
        std::istringstream words(value);
        if (header == "services:") {
            m_scenario.services.emplace();
            for (std::string service; words >> service;) {
                m_scenario.services->push_back(service);
            }
        } else if (header == "only-real:" || header == "only-simulated:") {
            m_scenario.onlyCast = header.substr(5, header.size() - 6);
            if (value.empty()) {
                mistake("say why: \"" + header + " REASON\"");
            }
        } else {
            mistake("unknown header \"" + header + "\"; there are services:, only-real: and only-simulated:");
        }
    }

    void readStep(const std::string& who, std::istream& words)
    {
        Step step{m_line, who, {}, {}};
        words >> step.command;
        step.arguments = restOf(words);
        const bool isOfProcesses = contains(OF_PROCESSES, step.command) && m_scenario.onlyCast == "real";
        const bool isOfActors = who != REGISTRY && (actor::Actor::knows(step.command) || isOfProcesses);
        if (!isOfActors && !contains(OF_THE_STAGE, step.command)) {
            mistake("\"" + who + "\" knows no command \"" + step.command + '"');
        }
        if (who == REGISTRY && m_scenario.services) {
            mistake("with \"services:\" there is no registry");
        }
        if (step.command == "start" || step.command == "pose") {
            m_known.push_back(who);
        } else if (!contains(m_known, who)) {
            mistake("\"" + who + "\" was never started");
        }
        m_scenario.steps.push_back(std::move(step));
    }

    [[noreturn]] void mistake(const std::string& what) const { throw Mistake(m_scenario.at(m_line) + what); }

    Scenario m_scenario;
    unsigned m_line = 0;
    bool m_hasTruth = false;
    std::vector<std::string> m_known;
};

} // namespace

Scenario readScenario(const std::string& file)
{
    return Reader(file).read();
}

} // namespace kesa::scenarios
