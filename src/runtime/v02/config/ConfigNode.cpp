#include "ConfigNode.h"

#include <kesa/errors.h>
#include <obr/ErrorOutput.h>

#include <fmt/format.h>

namespace kesa::runtime::v02 {

using util::config::Place;

const Channel& configChannel()
{
    static const Channel channel("KESA_RUNTIME_CONFIG");
    return channel;
}

ConfigNode ConfigNode::operator[](std::string_view key) const
{
    ConfigNode member = *this;
    member.m_value = &(*m_value)[key];
    member.m_place = Place::member(m_place, key);
    return member;
}

ConfigNode ConfigNode::operator[](std::size_t index) const
{
    ConfigNode element = *this;
    element.m_value = &(*m_value)[index];
    element.m_place = Place::element(m_place, index);
    return element;
}

ConfigNode ConfigNode::tolerated() const
{
    ConfigNode same = *this;
    same.m_isTolerated = true;
    return same;
}

ConfigNode ConfigNode::searched() const
{
    ConfigNode same = *this;
    same.m_isSearched = true;
    return same;
}

void ConfigNode::complain(Severity severity, std::string text, std::string advice) const
{
    m_report->add({severity, m_report->path(m_place.path()), std::move(text), std::move(advice)});
}

void ConfigNode::warn(std::string_view operation, std::string text, std::string advice) const
{
    trace(3, operation, text);
    complain(Severity::eWARNING, std::move(text), std::move(advice));
}

void ConfigNode::hint(std::string_view operation, std::string text, std::string advice) const
{
    trace(3, operation, text);
    complain(Severity::eHINT, std::move(text), std::move(advice));
}

bool ConfigNode::fail(int severity, std::string_view operation, const std::string& text, std::string advice,
                      std::string_view error) const
{
    return failAs(text, severity, operation, text, std::move(advice), error);
}

bool ConfigNode::failAs(std::string complaint, int severity, std::string_view operation, const std::string& text,
                        std::string advice, std::string_view error) const
{
    trace(severity, operation, text);
    complain(failure(), std::move(complaint), std::move(advice));
    return record(error.empty() ? text : error);
}

std::string ConfigNode::mismatch(std::string_view expected) const
{
    return fmt::format("expected {}, found {}", expected, util::config::described(*m_value));
}

bool ConfigNode::fail(const std::string& text, std::string advice, const std::string& complaint) const
{
    complain(failure(), complaint.empty() ? text : complaint, std::move(advice));
    return record(text);
}

void ConfigNode::trace(int severity, std::string_view operation, const std::string& text) const
{
    if (!m_isSearched) {
        KESA_TRACE_TEXT(configChannel(), severity, fmt::format("[{}] {}", operation, text));
    }
}

bool ConfigNode::record(std::string_view error) const
{
    return m_isSearched || obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 18, error);
}

bool ConfigNode::failType(std::string_view expected, const char* advice) const
{
    complain(failure(), m_value->isDefined() ? mismatch(expected) : "is missing", advice);
    return true;
}

} // namespace kesa::runtime::v02
