#ifndef TRACING_CAPTURINGSINK_H
#define TRACING_CAPTURINGSINK_H

#include <tracing/Sink.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tracing {

/// For tests: keeps lines in the order they came, each in the form the test compares. Any thread.
class CapturingSink final : public ISink {
public:
    /// What is kept of a line; when it is empty, the line is left out.
    using Form = std::function<std::string(const Line&)>;

    /// All lines, as "CHANNEL 4 text".
    CapturingSink() : CapturingSink([](const Line& line) { return std::string(line.channel) + ' ' + textOf(line); }) {}
    /// Those of one channel, as "4 text".
    explicit CapturingSink(const std::string& channel)
        : CapturingSink([channel](const Line& line) { return line.channel == channel ? textOf(line) : std::string(); })
    {}
    explicit CapturingSink(Form form) : m_form(std::move(form)) {}

    static std::string textOf(const Line& line) { return std::to_string(line.severity) + ' ' + std::string(line.text); }

    void write(const Line& line) override
    {
        if (std::string text = m_form(line); !text.empty()) {
            add(std::move(text));
        }
    }
    /// A line that nobody traced, in its place among the others.
    void add(std::string line)
    {
        const std::lock_guard lock(m_mutex);
        m_lines.push_back(std::move(line));
    }
    /// The lines so far; forgets them.
    std::vector<std::string> take()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_lines, {});
    }

private:
    const Form m_form;
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

/// What one channel traces while this lives, as "4 text".
class TraceCapture {
public:
    explicit TraceCapture(std::string channel, int threshold = 3)
        : m_channel(std::move(channel)), m_before(setSink(m_sink))
    {
        setThreshold(m_channel, threshold);
    }
    ~TraceCapture()
    {
        setThreshold(m_channel, 3);
        setSink(m_before);
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    std::vector<std::string> take() const { return m_sink->take(); }

private:
    const std::string m_channel;
    const std::shared_ptr<CapturingSink> m_sink = std::make_shared<CapturingSink>(m_channel);
    const std::shared_ptr<ISink> m_before;
};

} // namespace tracing

#endif
