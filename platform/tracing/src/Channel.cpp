#include "Channels.h"

#include <tracing/Channel.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace tracing {

Channel::Channel(std::string_view name, int facility, int threshold)
    : m_state(&Channels::instance().channel(name, facility, threshold)), m_threshold(&m_state->threshold)
{}

void Channel::log(int severity, std::string_view text) const
{
    if (isEnabled(severity)) {
        Channels::instance().write(*m_state, severity, text);
    }
}

void Channel::logC(int severity, const char* text) const
{
    log(severity, text != nullptr ? std::string_view(text) : std::string_view("(null)"));
}

void Channel::logCV(int severity, const char* format, ...) const
{
    if (!isEnabled(severity)) {
        return;
    }
    char text[1024];
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    const int size = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (size >= 0 && static_cast<std::size_t>(size) < sizeof text) {
        log(severity, {text, static_cast<std::size_t>(size)});
    } else if (size >= 0) {
        std::string longText(static_cast<std::size_t>(size), '\0');
        std::vsnprintf(longText.data(), longText.size() + 1, format, again);
        log(severity, longText);
    }
    va_end(again);
}

std::string_view Channel::name() const noexcept
{
    return m_state->name;
}

} // namespace tracing
