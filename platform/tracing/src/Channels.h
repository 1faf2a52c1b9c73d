#ifndef TRACING_CHANNELS_H
#define TRACING_CHANNELS_H

#include <tracing/Sink.h>

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace tracing {

/// What all channels of one name share.
struct ChannelState {
    ChannelState(std::string_view channelName, int itsFacility, int itsConfigured)
        : name(channelName), facility(itsFacility), configured(itsConfigured), threshold(itsConfigured)
    {}

    const std::string name;
    const int facility;
    int configured;             // guarded by the channels' mutex
    int silences = 0;           // likewise
    std::atomic<int> threshold; // what holds now; a line more or less while it changes is no harm, so it orders nothing
};

/// All channels and sinks of the process. Never destroyed: static objects trace until the process ends.
class Channels {
public:
    static Channels& instance();

    ChannelState& channel(std::string_view name, int facility, int threshold);
    void setThreshold(std::string_view channel, int threshold);
    /// One `Silence` more or less.
    void silence(ChannelState& channel, int change);
    /// The parts of `list` that cannot be read, empty when all can.
    std::string setThresholds(std::string_view list);

    enum class Output { eTEXT, eEVENTS };
    std::shared_ptr<ISink> setSink(Output output, std::shared_ptr<ISink> sink);
    void write(const ChannelState& channel, int severity, std::string_view text) noexcept;
    void flush() noexcept;

private:
    static std::mutex& lock() { return instance().m_mutex; }

    struct Sinks {
        std::shared_ptr<ISink> set;             // by a call
        std::shared_ptr<ISink> fromEnvironment; // opened when first needed
        const std::shared_ptr<ISink>& current() const noexcept { return set != nullptr ? set : fromEnvironment; }
    };

    Channels();
    Sinks& sinks(Output output) noexcept { return m_sinks[static_cast<std::size_t>(output)]; }
    std::shared_ptr<ISink> sinkFor(Output output);
    void openTextSink();
    void openEventSink();
    void complain(std::string_view text);
    void setThresholdLocked(std::string_view channel, int threshold);
    void applyThreshold(ChannelState& channel);

    std::mutex m_mutex; // guards all below
    std::map<std::string, ChannelState, std::less<>> m_channels;
    std::map<std::string, int, std::less<>> m_thresholds; // set by name, also of channels that do not exist yet
    int m_textThreshold = 0;                              // set by "*"; 0: each channel's own
    std::array<Sinks, 2> m_sinks;
};

} // namespace tracing

#endif
