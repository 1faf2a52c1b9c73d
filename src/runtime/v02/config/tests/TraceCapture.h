#ifndef KESA_RUNTIME_V02_CONFIG_TESTS_TRACECAPTURE_H
#define KESA_RUNTIME_V02_CONFIG_TESTS_TRACECAPTURE_H

#include <tracing/Sink.h>

#include <memory>
#include <string>
#include <vector>

namespace kesa::runtime::v02 {

/// Holds the lines "SEVERITY text" of KESA_RUNTIME_CONFIG that are written while it lives.
class TraceCapture {
public:
    explicit TraceCapture(int threshold = 1) : m_sink(std::make_shared<Lines>()), m_before(tracing::setSink(m_sink))
    {
        tracing::setThreshold("KESA_RUNTIME_CONFIG", threshold);
    }
    ~TraceCapture()
    {
        tracing::setThreshold("KESA_RUNTIME_CONFIG", 3);
        tracing::setSink(m_before);
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    const std::vector<std::string>& lines() const { return m_sink->lines; }

private:
    struct Lines : tracing::ISink {
        void write(const tracing::Line& line) override
        {
            if (line.channel == "KESA_RUNTIME_CONFIG") {
                lines.push_back(std::to_string(line.severity) + " " + std::string(line.text));
            }
        }
        std::vector<std::string> lines;
    };

    std::shared_ptr<Lines> m_sink;
    std::shared_ptr<tracing::ISink> m_before;
};

} // namespace kesa::runtime::v02

#endif
