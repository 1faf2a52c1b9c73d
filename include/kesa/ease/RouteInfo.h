#ifndef KESA_EASE_ROUTEINFO_H
#define KESA_EASE_ROUTEINFO_H

#include <obr/api.h>
#include <util/config/Value.h>

#include <string>
#include <string_view>
#include <utility>

namespace kesa {

/// What a service says of one of its routes, for people and tools; it changes nothing about how requests are served:
///
///     kesa::about("greets").answer(R"({"type":"string"})")
///
/// A schema is JSON Schema, as JSON. One that is no JSON is left out, with a trace (4) on "KESA_EASE" that says why.
class KESA_API RouteInfo {
public:
    RouteInfo() = default;
    /// `text` is one line of UTF-8.
    explicit RouteInfo(std::string text) : m_text(std::move(text)) {}

    /// A persistent stream may be asked for. Otherwise there is a single answer, or none.
    RouteInfo& stream();
    /// The schema of the body of a request.
    RouteInfo& body(std::string_view schema);
    /// The schema of the answer, in a stream of each one.
    RouteInfo& answer(std::string_view schema);
    /// Of the route that sets the value which this one answers: the same text, and its body is as the answer of this.
    RouteInfo ofSetting() const;

    const std::string& text() const noexcept { return m_text; }
    bool isStream() const noexcept { return m_isStream; }
    /// Undefined when there is none.
    const util::config::Value& bodySchema() const noexcept { return m_body; }
    const util::config::Value& answerSchema() const noexcept { return m_answer; }

private:
    std::string m_text;
    bool m_isStream = false;
    util::config::Value m_body;
    util::config::Value m_answer;
};

inline RouteInfo about(std::string text)
{
    return RouteInfo(std::move(text));
}

} // namespace kesa

#endif
