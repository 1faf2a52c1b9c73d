#include "checkHistory.h"

#include <map>
#include <sstream>

namespace kesa::system_test {

namespace {

class Checker {
public:
    std::string check(const std::vector<std::string>& events)
    {
        for (std::size_t i = 0; i < events.size(); ++i) {
            std::istringstream words(events[i]);
            std::string kind;
            std::string subject;
            words >> kind >> subject;
            const char* const complaint = add(kind, subject, words);
            if (complaint != nullptr) {
                return report(complaint, events, i);
            }
        }
        return {};
    }

private:
    enum class State { eNONE, eOPEN, eENDED };

    static std::string report(const char* complaint, const std::vector<std::string>& events, std::size_t at)
    {
        std::string text = std::string(complaint) + ": \"" + events[at] + "\", the last of these:\n";
        for (std::size_t i = at > 40 ? at - 40 : 0; i <= at; ++i) {
            text += "  " + events[i] + '\n';
        }
        return text;
    }

    const char* add(const std::string& kind, const std::string& subject, std::istream& words)
    {
        if (kind == "call-failed") {
            return "a call of the bystander failed";
        }
        if (kind == "connected" || kind == "lost") {
            return changeConnection(subject, kind == "connected");
        }
        if (kind == "issued") {
            m_lastValue.erase(subject);
            return change(subject, State::eNONE, State::eOPEN, "issued twice");
        }
        if (kind == "value") {
            const char* const complaint =
                change(subject, State::eOPEN, State::eOPEN, "a value of a stream that is not open");
            return complaint != nullptr ? complaint : addValue(subject, words);
        }
        if (kind == "error" || kind == "completed") {
            return change(subject, State::eOPEN, State::eENDED, "an end of a stream that is not open");
        }
        return nullptr;
    }

    const char* changeConnection(const std::string& service, bool isConnected)
    {
        if (m_isConnected[service] == isConnected) {
            return isConnected ? "connected twice" : "lost without having been connected";
        }
        m_isConnected[service] = isConnected;
        if (isConnected) {
            for (const auto& [stream, state] : m_streams) {
                if (state == State::eOPEN && stream.starts_with(service + '#')) {
                    return "connected while a stream of the connection before is open";
                }
            }
        }
        return nullptr;
    }

    const char* change(const std::string& stream, State from, State to, const char* complaint)
    {
        State& state = m_streams[stream];
        if (state != from) {
            return complaint;
        }
        state = to;
        return nullptr;
    }

    /// The first number is any, of a feed it is 0.
    const char* addValue(const std::string& stream, std::istream& words)
    {
        long number = 0;
        if (stream.find('#') == std::string::npos || !(words >> number)) {
            return nullptr;
        }
        const auto last = m_lastValue.find(stream);
        const bool isRight = last == m_lastValue.end() ? number == 0 : last->second == 0 || number == last->second + 1;
        m_lastValue[stream] = number;
        return isRight ? nullptr : "a value is missing, or stands elsewhere";
    }

    std::map<std::string, bool> m_isConnected;
    std::map<std::string, State> m_streams;
    std::map<std::string, long> m_lastValue;
};

} // namespace

std::string checkHistory(const std::vector<std::string>& events)
{
    return Checker().check(events);
}

} // namespace kesa::system_test
