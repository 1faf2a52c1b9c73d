#ifndef KESA_TESTS_ACTOR_TOLD_H
#define KESA_TESTS_ACTOR_TOLD_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kesa::actor {

/// What a process has told, and what of it somebody has waited for.
class Told {
public:
    void add(std::string event)
    {
        m_events.push_back(std::move(event));
        m_isTaken.push_back(false);
    }
    const std::vector<std::string>& events() const { return m_events; }

    /// Takes the oldest event that is `beginning`, or begins with it and a space or colon, and was not yet taken, of
    /// those from number `from` on; what follows.
    std::optional<std::string> take(const std::string& beginning, std::size_t from = 0)
    {
        for (std::size_t i = from; i < m_events.size(); ++i) {
            const std::string& line = m_events[i];
            if (!m_isTaken[i] && line.starts_with(beginning) &&
                (line.size() == beginning.size() || std::strchr(" :", line[beginning.size()]) != nullptr)) {
                m_isTaken[i] = true;
                return line.substr(std::min(line.size(), beginning.size() + 1));
            }
        }
        return std::nullopt;
    }
    /// One that begins so and was not taken; empty when there is none.
    std::string find(std::string_view beginning) const
    {
        for (std::size_t i = 0; i < m_events.size(); ++i) {
            if (!m_isTaken[i] && m_events[i].starts_with(beginning)) {
                return m_events[i];
            }
        }
        return {};
    }
    /// One that is bad news, and that nobody waited for.
    std::string findBad() const
    {
        for (const char* const bad : {"refused", "broken", "failed", "not started", "unknown", "unconnected", "gap"}) {
            if (std::string event = find(bad); !event.empty()) {
                return event;
            }
        }
        return {};
    }

private:
    std::vector<std::string> m_events;
    std::vector<bool> m_isTaken; ///< per event
};

} // namespace kesa::actor

#endif
