#ifndef KESA_ACCESS_REFUSALS_REFUSALTRACES_H
#define KESA_ACCESS_REFUSALS_REFUSALTRACES_H

#include <comm/Clock.h>
#include <comm/OncePer.h>
#include <obr/api.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace kesa::access {

/// Thins out the traces of refusals, which whoever asks may cause without end: one for a process, and of the processes
/// of one user one in a second. Not for several threads at once.
class KESA_API RefusalTraces {
public:
    /// What ends the line: see `comm::OncePer`. None: no line now. `start`: when the process `pid` began.
    std::optional<std::string> pass(std::int64_t uid, std::int64_t pid, std::uint64_t start, comm::TimeNs now);
    /// From now on each process is traced again.
    void forget() { m_traced.clear(); }

private:
    // Bounded.
    std::set<std::pair<std::int64_t, std::uint64_t>> m_traced; ///< processes
    std::map<std::int64_t, comm::OncePer> m_ofUsers;
};

} // namespace kesa::access

#endif
