#ifndef KESA_RUNTIME_V02_CONFIG_CONFIGNODE_H
#define KESA_RUNTIME_V02_CONFIG_CONFIGNODE_H

#include "ConfigReport.h"

#include <fmt/format.h>
#include <kesa/tracing.h>
#include <util/config/Value.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace kesa::runtime::v02 {

/// The channel of all traces about the configuration.
const Channel& configChannel();

/// A value of the document that knows where it stands, so that every complaint about it can say so. The root value and
/// the report outlive their nodes.
class ConfigNode {
public:
    ConfigNode(const util::config::Value& root, std::string rootPath, ConfigReport& report)
        : m_value(&root), m_path(std::move(rootPath)), m_report(&report)
    {}

    ConfigNode operator[](std::string_view key) const;
    ConfigNode operator[](std::size_t index) const;
    /// The same value, about which failures are reported as not fatal.
    ConfigNode tolerated() const;
    const util::config::Value& value() const noexcept { return *m_value; }

    /// True when the value is not of that type, which no trace and no error tells: only the report does.
    [[nodiscard]] bool get(bool& out) const { return m_value->get(out) && reportType("must be true or false"); }
    [[nodiscard]] bool get(unsigned int& out) const
    {
        return m_value->get(out) && reportType("must be an unsigned integer");
    }
    [[nodiscard]] bool get(std::string& out) const { return m_value->get(out) && reportType("must be a string"); }

    /// Calls `take(text, element, index)` with each element of an array of strings. The first element that is no
    /// string, or that `take` answers `true` for, ends it with `true`. What is no array has no elements.
    template <class F>
    [[nodiscard]] bool readStrings(F&& take) const
    {
        for (std::size_t i = 0; i < m_value->arraySize(); ++i) {
            const ConfigNode element = (*this)[i];
            std::string text;
            if (element.get(text) || take(text, element, i)) {
                return true;
            }
        }
        return false;
    }

    /// Traces a complaint that is no failure.
    template <class... A>
    void warn(fmt::format_string<A...> format, A&&... arguments) const
    {
        trace(3, false, fmt::format(format, std::forward<A>(arguments)...));
    }
    /// Traces, and records `error` as the reason. Answers `true`.
    template <class... A>
    bool fail(int severity, std::string_view error, fmt::format_string<A...> format, A&&... arguments) const
    {
        trace(severity, !m_isTolerated, fmt::format(format, std::forward<A>(arguments)...));
        return record(error);
    }
    /// Records `error` without a trace. Answers `true`.
    bool fail(std::string_view error) const;

private:
    void trace(int severity, bool isFatal, const std::string& text) const;
    bool record(std::string_view error) const;
    bool reportType(std::string_view expected) const;
    void report(int severity, bool isFatal, std::string_view text) const;

    const util::config::Value* m_value;
    std::string m_path;
    ConfigReport* m_report;
    bool m_isTolerated = false;
};

} // namespace kesa::runtime::v02

#endif
