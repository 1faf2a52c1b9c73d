#include "Measured.h"

#include "require.h"

#include <algorithm>

namespace bench {

Recorder::Recorder(const ChildProcess& other, double seconds)
    : m_other(other), m_warmUntil(wallNs() + static_cast<std::int64_t>(seconds * 1e8)),
      m_durationNs(static_cast<std::int64_t>(seconds * 1e9))
{
    m_times.reserve(1U << 20U);
}

void Recorder::begin(std::int64_t atNs)
{
    m_cpuAtStart = cpuNs();
    m_start = atNs;
    m_end = atNs + m_durationNs;
}

Measured Recorder::result() const
{
    const auto cpu = static_cast<double>(cpuNs() - m_cpuAtStart);
    require(!m_times.empty(), "no operation ended in the time given");
    const std::vector<double> times(m_times.begin(), m_times.end());
    const auto count = static_cast<double>(times.size());
    return {quantile(times, 0.5), quantile(times, 0.99), count * 1e9 / static_cast<double>(m_last - m_start),
            cpu / count};
}

double quantile(std::vector<double> values, double share)
{
    const auto position = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + position, values.end());
    return values[static_cast<std::size_t>(position)];
}

} // namespace bench
