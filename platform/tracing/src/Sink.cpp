#include "Channels.h"
#include "openSink.h"

#include <obr/ErrorOutput.h>
#include <obr/errors.h>
#include <tracing/Sink.h>

#include <utility>

namespace tracing {

ISink::~ISink() = default;

std::shared_ptr<ISink> setSink(std::shared_ptr<ISink> sink)
{
    return Channels::instance().setSink(Channels::Output::eTEXT, std::move(sink));
}

std::shared_ptr<ISink> setEventLogSink(std::shared_ptr<ISink> sink)
{
    return Channels::instance().setSink(Channels::Output::eEVENTS, std::move(sink));
}

void setThreshold(std::string_view channel, int threshold)
{
    Channels::instance().setThreshold(channel, threshold);
}

bool setThresholds(std::string_view list)
{
    const std::string bad = Channels::instance().setThresholds(list);
    return !bad.empty() && obr::ErrorOutput(__FILE__, __LINE__)(obr::errors::Error, obr::errors::TEXT, bad);
}

Silence::Silence(std::string_view channel) : m_channel(Channels::instance().channel(channel, 0, 3))
{
    Channels::instance().silence(m_channel, 1);
}

Silence::~Silence()
{
    Channels::instance().silence(m_channel, -1);
}

std::shared_ptr<ISink> makeSink(const std::string& description)
{
    std::string reason;
    std::shared_ptr<ISink> sink = openSink(description, reason);
    if (sink == nullptr) {
        obr::ErrorOutput(__FILE__, __LINE__)(obr::errors::Error, obr::errors::TEXT, reason);
    }
    return sink;
}

} // namespace tracing
