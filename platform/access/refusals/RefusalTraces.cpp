#include "refusals/RefusalTraces.h"

namespace kesa::access {

std::optional<std::string> RefusalTraces::pass(std::int64_t uid, std::int64_t pid, std::uint64_t start,
                                               comm::TimeNs now)
{
    constexpr std::size_t MOST = 1000;
    const std::pair process(pid, start);
    if (m_traced.count(process) > 0) {
        return std::nullopt;
    }
    if (m_ofUsers.size() >= MOST) {
        m_ofUsers.clear();
    }
    auto end = m_ofUsers.try_emplace(uid, comm::SECOND).first->second.pass(now);
    if (end) {
        if (m_traced.size() >= MOST) {
            m_traced.clear();
        }
        m_traced.insert(process);
    }
    return end;
}

} // namespace kesa::access
