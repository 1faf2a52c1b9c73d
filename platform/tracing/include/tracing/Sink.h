#ifndef TRACING_SINK_H
#define TRACING_SINK_H

#include <obr/api.h>

#include <memory>
#include <string>
#include <string_view>

namespace tracing {

struct ChannelState;

/// One line on its way out. The views are valid during `ISink::write` only.
struct Line {
    std::string_view channel;
    int severity;
    std::string_view text;
    int facility = 0; ///< of the channel: 0 free text, 7 event log
};

/// Takes finished lines. `write` comes from any thread, also from several at once; it must not trace. A child of a fork
/// may trace: a lock that `write` takes has to be held across the fork (pthread_atfork), or the child may wait for ever
/// for a thread that it does not have. The sinks of `makeSink` do so.
class KESA_API ISink {
public:
    virtual ~ISink();
    virtual void write(const Line& line) = 0;
    /// When the process exits, and before a fatal error ends it: what is held back goes out now, or never.
    virtual void flush() {}
};

/// Replaces where free-text lines go; null restores what the environment names (`KESA_TRACE_SINK`, else stderr).
/// Returns the one before, null if none was set. A line in flight may still reach the old sink; `write` never
/// runs on it once the last owner let go.
KESA_API std::shared_ptr<ISink> setSink(std::shared_ptr<ISink> sink);

/// The same for the event log; null restores what the environment names (`KESA_EVENT_LOG`, else nothing: then the
/// event log's threshold reads as 5 and no line is built).
KESA_API std::shared_ptr<ISink> setEventLogSink(std::shared_ptr<ISink> sink);

/// Sets the threshold of a channel, or of all free-text channels for "*", present and future: 1 (all) to 5 (nothing).
KESA_API void setThreshold(std::string_view channel, int threshold);

/// Reads a list such as "*=3,KESA_RUNTIME_MAIN=1", in which a name counts more than "*" wherever they stand. True, with
/// the reason in `obr::ErrorStorage`, when a part of it cannot be read; the good parts apply.
[[nodiscard]] KESA_API bool setThresholds(std::string_view list);

/// While one lives, its channel is silent, unless a threshold has been set for it, by the environment or by a call: for
/// lines that are an error elsewhere and expected now. Any thread.
class KESA_API Silence {
public:
    explicit Silence(std::string_view channel);
    ~Silence();
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    ChannelState& m_channel;
};

/// "stderr" or "file:PATH", which is appended to. A line of the event log is written bare, every other as
/// "TIME SEVERITY PROCESS/THREAD [CHANNEL] TEXT", with its control characters escaped. A reader that does not keep up
/// costs the writer 100 ms once; then lines are dropped until it does, as while the file cannot be written, which is an
/// error on stderr. How many is said then, or when sink or process end, if that is taken within another 100 ms. Null,
/// with the reason in `obr::ErrorStorage`, when it is neither or cannot be opened.
KESA_API std::shared_ptr<ISink> makeSink(const std::string& description);

} // namespace tracing

#endif
