#ifndef KESA_TESTS_SYSTEM_ACTOR_BELIEFS_H
#define KESA_TESTS_SYSTEM_ACTOR_BELIEFS_H

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>

/// What an actor believes to be there, as facts: "PATTERN PATH GENERATION" for a service it tracks, "PATH connected"
/// for one it has resolved. It says "broken" when a stream does not tell of a service by turns that it is there and
/// gone, and "true ID" when it believes what it has been told to expect.
class Beliefs {
public:
    explicit Beliefs(std::function<void(const std::string&)> say) : m_say(std::move(say)) {}

    void added(const std::string& subject, const std::string& detail)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_known.emplace(subject, detail).second) {
            m_say("broken " + subject + ' ' + detail + " is there twice");
        }
        m_facts.insert(subject + ' ' + detail);
        check();
    }
    void removed(const std::string& subject)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto known = m_known.find(subject);
        if (known == m_known.end()) {
            m_say("broken " + subject + " is gone without having been there");
            return;
        }
        m_facts.erase(subject + ' ' + known->second);
        m_known.erase(known);
        check();
    }
    /// `isAll`: and nothing else.
    void expect(const std::string& id, std::set<std::string> facts, bool isAll)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isAllExpected = isAll;
        m_expectation = id;
        m_expected = std::move(facts);
        check();
    }
    std::string json()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::string text;
        for (const std::string& fact : m_facts) { // no fact has anything to escape
            text.append(text.empty() ? "[\"" : ", \"").append(fact).append("\"");
        }
        return text.empty() ? "[]" : text + ']';
    }

private:
    void check()
    {
        if (!m_expectation.empty() &&
            (m_isAllExpected ? m_facts == m_expected
                             : std::includes(m_facts.begin(), m_facts.end(), m_expected.begin(), m_expected.end()))) {
            m_say("true " + std::exchange(m_expectation, std::string()));
        }
    }

    const std::function<void(const std::string&)> m_say;
    std::mutex m_mutex;
    std::map<std::string, std::string> m_known; ///< detail by subject; under `m_mutex`
    std::set<std::string> m_facts;              ///< the same as texts; under `m_mutex`
    std::set<std::string> m_expected;           ///< under `m_mutex`
    bool m_isAllExpected = true;                ///< under `m_mutex`
    std::string m_expectation;                  ///< empty when there is none; under `m_mutex`
};

#endif
