#include <kesa/ease/RouteInfo.h>

#include <obr/ErrorStorage.h>
#include <tracing/Channel.h>
#include <util/config/JSONParser.h>

#include <fmt/format.h>

namespace kesa {

namespace {

/// Undefined, and traced, when it is no JSON.
util::config::Value read(std::string_view schema, std::string_view what, std::string_view route)
{
    util::config::Value value;
    if (util::config::JSONParser().parseString(schema, value)) {
        static const ::tracing::Channel channel("KESA_EASE");
        KESA_TRACE_TEXT(channel, 4,
                        fmt::format("[RouteInfo] the schema of the {} of '{}' is left out, since it is no JSON: {}",
                                    what, route, obr::ErrorStorage::reason()));
        obr::ErrorStorage::ack();
        return {};
    }
    return value;
}

} // namespace

RouteInfo& RouteInfo::stream()
{
    m_isStream = true;
    return *this;
}

RouteInfo& RouteInfo::body(std::string_view schema)
{
    m_body = read(schema, "body", m_text);
    return *this;
}

RouteInfo& RouteInfo::answer(std::string_view schema)
{
    m_answer = read(schema, "answer", m_text);
    return *this;
}

RouteInfo RouteInfo::ofSetting() const
{
    RouteInfo setting(m_text);
    setting.m_body = m_answer;
    return setting;
}

} // namespace kesa
