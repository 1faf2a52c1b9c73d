#ifndef TRACING_CHANNEL_H
#define TRACING_CHANNEL_H

#include <obr/api.h>

#include <atomic>
#include <string_view>

namespace tracing {

struct ChannelState;

/// A named stream of diagnostics. Severities: 1 most detailed, 2 course of events, 3 warning, 4 error; a line is
/// written when its severity is at least the channel's threshold. Channels of one name share one state, which
/// lives until the process ends: they may be static objects, in any order.
///
/// Any thread. A line is written whole; writing never fails the caller.
class KESA_API Channel {
public:
    /// Facility 0: free text. Facility 7: the event log; its threshold reads as 5 until a sink for it is named.
    explicit Channel(std::string_view name, int facility = 0, int threshold = 3);

    int threshold() const noexcept { return m_threshold->load(std::memory_order_relaxed); }
    bool isEnabled(int severity) const noexcept { return severity >= threshold(); }

    /// Finished text.
    void log(int severity, std::string_view text) const;
    /// Text as it stands: a '%' means itself.
    void logC(int severity, const char* text) const;
    void logCV(int severity, const char* format, ...) const __attribute__((format(printf, 3, 4)));

    std::string_view name() const noexcept;

private:
    ChannelState* m_state;
    const std::atomic<int>* m_threshold;
};

} // namespace tracing

/// A printf-style line whose arguments are evaluated only when it is written.
#define KESA_TRACE(channel, severity, ...)                                                                             \
    do {                                                                                                               \
        if ((channel).isEnabled(severity)) {                                                                           \
            (channel).logCV((severity), __VA_ARGS__);                                                                  \
        }                                                                                                              \
    } while (false)

/// The same for a line whose text is any expression of `std::string_view` or `std::string`.
#define KESA_TRACE_TEXT(channel, severity, text)                                                                       \
    do {                                                                                                               \
        if ((channel).isEnabled(severity)) {                                                                           \
            (channel).log((severity), (text));                                                                         \
        }                                                                                                              \
    } while (false)

#endif
