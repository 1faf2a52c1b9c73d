#ifndef BENCH_MEASURED_H
#define BENCH_MEASURED_H

#include "ChildProcess.h"
#include "clocks.h"

#include <cstdint>
#include <vector>

namespace bench {

/// What was measured of one kind of operation.
struct Measured {
    double medianNs = 0; ///< of the single operations
    double p99Ns = 0;
    double perSecond = 0;
    double cpuNsPerOp = 0; ///< of both processes together
};

/// Gathers single times, after a warm-up of a tenth of the duration that does not count.
class Recorder {
public:
    Recorder(const ChildProcess& other, double seconds);

    /// One operation took from `startNs` to `endNs`. False when the time is over.
    bool add(std::int64_t startNs, std::int64_t endNs)
    {
        if (endNs < m_warmUntil) {
            return true;
        }
        if (m_start == 0) {
            begin(endNs);
            return true;
        }
        m_times.push_back(endNs - startNs);
        m_last = endNs;
        return endNs < m_end;
    }
    Measured result() const;

private:
    void begin(std::int64_t atNs);
    std::int64_t cpuNs() const noexcept { return processCpuNs() + m_other.cpuNs(); }

    const ChildProcess& m_other;
    std::int64_t m_warmUntil;
    std::int64_t m_durationNs;
    std::int64_t m_start = 0;
    std::int64_t m_end = 0;
    std::int64_t m_last = 0;
    std::int64_t m_cpuAtStart = 0;
    std::vector<std::int64_t> m_times;
};

/// Times `operation` again and again.
template <class Operation>
Measured repeat(const ChildProcess& other, double seconds, Operation&& operation)
{
    Recorder recorder(other, seconds);
    std::int64_t start = wallNs();
    for (bool goesOn = true; goesOn;) {
        operation();
        const std::int64_t end = wallNs();
        goesOn = recorder.add(start, end);
        start = end;
    }
    return recorder.result();
}

/// The value below which `share` (0..1) of `values` lie.
double quantile(std::vector<double> values, double share);

} // namespace bench

#endif
