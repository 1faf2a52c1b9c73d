#include "ConfigNode.h"

#include <kesa/errors.h>
#include <obr/ErrorOutput.h>

namespace kesa::runtime::v02 {

const Channel& configChannel()
{
    static const Channel channel("KESA_RUNTIME_CONFIG");
    return channel;
}

ConfigNode ConfigNode::operator[](std::string_view key) const
{
    ConfigNode member = *this;
    member.m_value = &(*m_value)[key];
    member.m_path.append(m_path.empty() ? "" : ".").append(ConfigReport::shortened(key));
    return member;
}

ConfigNode ConfigNode::operator[](std::size_t index) const
{
    ConfigNode element = *this;
    element.m_value = &(*m_value)[index];
    element.m_path.append("[").append(std::to_string(index)).append("]");
    return element;
}

ConfigNode ConfigNode::tolerated() const
{
    ConfigNode same = *this;
    same.m_isTolerated = true;
    return same;
}

bool ConfigNode::fail(std::string_view error) const
{
    report(4, !m_isTolerated, error);
    return record(error);
}

void ConfigNode::trace(int severity, bool isFatal, const std::string& text) const
{
    KESA_TRACE_TEXT(configChannel(), severity, text);
    // The operation in brackets says nothing to the writer of a document.
    report(severity, isFatal, std::string_view(text).substr(text.find("] ") + 2));
}

bool ConfigNode::record(std::string_view error) const
{
    return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 18, error);
}

bool ConfigNode::reportType(std::string_view expected) const
{
    report(4, !m_isTolerated, m_value->isDefined() ? expected : "is missing");
    return true;
}

void ConfigNode::report(int severity, bool isFatal, std::string_view text) const
{
    m_report->complaints.push_back({severity, isFatal, m_path, std::string(text)});
}

} // namespace kesa::runtime::v02
