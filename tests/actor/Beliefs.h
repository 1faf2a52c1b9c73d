#ifndef KESA_TESTS_ACTOR_BELIEFS_H
#define KESA_TESTS_ACTOR_BELIEFS_H

#include "Streams.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace kesa::actor {

/// What an actor believes to be there, as facts: "PATH GENERATION" for a service it tracks, "PATTERN PATH GENERATION"
/// for one it has found by a query, "=PATH", "=LOCATOR" or "=PATTERN PATH" for one it has resolved. It says "broken"
/// when a stream does not tell of a service by turns that it is there and gone, and "true ID" when it believes what it
/// has been told to expect.
class Beliefs {
public:
    explicit Beliefs(Say say) : m_say(std::move(say)) {}

    /// Begins to follow it, from now on under the number that is returned.
    int follow(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        forgetLocked(what);
        return m_numbers[what] = ++m_lastNumber;
    }
    /// Drops what it said; calls that still come do not count.
    void forget(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        forgetLocked(what);
    }
    void added(const std::string& what, int number, const std::string& path, const std::string& generation)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_numbers[what] != number) {
            return;
        }
        if (!m_known[what].emplace(path, generation).second) {
            m_say("broken " + what + ' ' + path + ' ' + generation + " is there twice");
        }
        m_facts.insert(fact(what, path, generation));
        narrateLocked("shown ", fact(what, path, generation));
        check();
    }
    void removed(const std::string& what, int number, const std::string& path)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_numbers[what] != number) {
            return;
        }
        const auto known = m_known[what].find(path);
        if (known == m_known[what].end()) {
            m_say("broken " + what + ' ' + path + " is gone without having been there");
            return;
        }
        m_facts.erase(fact(what, path, known->second));
        narrateLocked("gone ", fact(what, path, known->second));
        m_known[what].erase(known);
        check();
    }
    /// From now on it says "shown FACT" and "gone FACT".
    void narrate()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isNarrating = true;
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
    static std::string fact(const std::string& what, const std::string& path, const std::string& generation)
    {
        if (what.front() == '=') {
            return what.compare(1, std::string::npos, path) == 0 || what.find("://") != std::string::npos
                       ? what
                       : what + ' ' + path;
        }
        return (what == path ? std::string() : what + ' ') + path + ' ' + generation;
    }
    void forgetLocked(const std::string& what)
    {
        m_numbers.erase(what);
        for (const auto& [path, generation] : m_known[what]) {
            m_facts.erase(fact(what, path, generation));
        }
        m_known.erase(what);
    }
    void narrateLocked(const char* event, const std::string& fact)
    {
        if (m_isNarrating) {
            m_say(event + fact);
        }
    }
    void check()
    {
        if (!m_expectation.empty() &&
            (m_isAllExpected ? m_facts == m_expected
                             : std::includes(m_facts.begin(), m_facts.end(), m_expected.begin(), m_expected.end()))) {
            m_say("true " + std::exchange(m_expectation, std::string()));
        }
    }

    const Say m_say;
    std::mutex m_mutex;
    int m_lastNumber = 0;                 ///< under `m_mutex`
    std::map<std::string, int> m_numbers; ///< of what is followed; under `m_mutex`
    /// Generation by path by what is followed; under `m_mutex`.
    std::map<std::string, std::map<std::string, std::string>> m_known;
    std::set<std::string> m_facts;    ///< the same as texts; under `m_mutex`
    std::set<std::string> m_expected; ///< under `m_mutex`
    bool m_isNarrating = false;       ///< under `m_mutex`
    bool m_isAllExpected = true;      ///< under `m_mutex`
    std::string m_expectation;        ///< empty when there is none; under `m_mutex`
};

} // namespace kesa::actor

#endif
