#ifndef KESA_RUNTIME_V02_CONFIG_CONFIGNODE_H
#define KESA_RUNTIME_V02_CONFIG_CONFIGNODE_H

#include "ConfigReport.h"

#include <kesa/tracing.h>
#include <util/config/Value.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace kesa::runtime::v02 {

/// The channel of all traces about the configuration.
const Channel& configChannel();

inline constexpr const char* ADVICE_ON_FLAG = "write true or false, without quotation marks";

/// A value of the document that knows where it stands, so that every complaint about it can say so. The root value, the
/// report, the node that it was taken from and the key outlive it.
class ConfigNode {
public:
    ConfigNode(const util::config::Value& root, ConfigReport& report) : m_value(&root), m_report(&report) {}

    ConfigNode operator[](std::string_view key) const;
    ConfigNode operator[](std::size_t index) const;
    /// The same value, about which failures are warnings.
    ConfigNode tolerated() const;
    /// The same value, in a reading that goes on behind each failure, to find them all. It traces and records nothing:
    /// the reading before it has.
    ConfigNode searched() const;
    const util::config::Value& value() const noexcept { return *m_value; }
    /// Of a list, else 0.
    std::size_t size() const noexcept { return m_value->arraySize(); }

    /// True when the value is not of that type, which no trace and no error tells: only the report does.
    [[nodiscard]] bool get(bool& out) const { return m_value->get(out) && failType("true or false", ADVICE_ON_FLAG); }
    [[nodiscard]] bool get(unsigned int& out) const
    {
        return m_value->get(out) &&
               failType("a whole number from 0 to 4294967295", "write one without quotation marks");
    }
    [[nodiscard]] bool get(std::string& out, const char* advice) const
    {
        return m_value->get(out) && failType("a text", advice);
    }
    /// The same for an object.
    [[nodiscard]] bool isNoDictionary(const char* advice) const
    {
        return !m_value->isDictionary() && failType("an object", advice);
    }

    /// Whether that is the end of reading.
    bool endsWith(bool failed) const noexcept { return failed && (!m_isSearched || m_report->isFull()); }
    /// Takes the steps one after the other, the first failure ends them. Answers whether any failed.
    template <class... Step>
    [[nodiscard]] bool inTurn(Step&&... steps) const
    {
        bool failed = false;
        ((failed = endsWith(failed) || steps() || failed), ...);
        return failed;
    }
    /// Calls `take(element, index)` with each element of an array; the first that it answers `true` for ends it with
    /// `true`. What is no array has no elements.
    template <class F>
    [[nodiscard]] bool readElements(F&& take) const
    {
        bool failed = false;
        for (std::size_t i = 0; i < size() && !endsWith(failed); ++i) {
            failed = take((*this)[i], i) || failed;
        }
        return failed;
    }
    /// Calls `take(text, element, index)` with each element of an array of strings; one that is no string is a failure,
    /// with that advice.
    template <class F>
    [[nodiscard]] bool readStrings(const char* advice, F&& take) const
    {
        return readElements([advice, &take](const ConfigNode& element, std::size_t index) {
            std::string text;
            return element.get(text, advice) || take(text, element, index);
        });
    }
    /// Calls `take(key, member)` with each member of an object, in the order of the keys.
    template <class F>
    [[nodiscard]] bool readMembers(F&& take) const
    {
        bool failed = false;
        for (const auto& [key, value] : *m_value) {
            if (endsWith(failed)) {
                break;
            }
            failed = take(key, (*this)[key]) || failed;
        }
        return failed;
    }

    /// Whether a warning or hint needs no words any more.
    bool isOnlyCounted() const noexcept { return m_report->isFullOfHints(); }
    /// Only the report tells it.
    void complain(Severity severity, std::string text, std::string advice) const;
    /// Traces "[operation] text": no failure.
    void warn(std::string_view operation, std::string text, std::string advice) const;
    /// The same when a default serves: for the report it is a hint.
    void hint(std::string_view operation, std::string text, std::string advice) const;
    /// Traces it, and records `error`, or the text, as the reason. Answers `true`.
    bool fail(int severity, std::string_view operation, const std::string& text, std::string advice,
              std::string_view error = {}) const;
    /// Records the text without a trace. Answers `true`. `complaint`: what the report says in place of the text.
    bool fail(const std::string& text, std::string advice, const std::string& complaint = {}) const;
    /// The same as the one that traces; the report has `complaint` in place of the text.
    bool failAs(std::string complaint, int severity, std::string_view operation, const std::string& text,
                std::string advice, std::string_view error = {}) const;
    /// What the report says of a value that is there and of another type than `expected`, as "a list".
    std::string mismatch(std::string_view expected) const;
    /// Only the trace tells it.
    void trace(int severity, std::string_view operation, const std::string& text) const;

private:
    bool record(std::string_view error) const;
    bool failType(std::string_view expected, const char* advice) const;
    Severity failure() const noexcept { return m_isTolerated ? Severity::eWARNING : Severity::eERROR; }

    const util::config::Value* m_value;
    util::config::Place m_place;
    ConfigReport* m_report;
    bool m_isTolerated = false;
    bool m_isSearched = false;
};

} // namespace kesa::runtime::v02

#endif
