#include "backend/connection/PeerLimit.h"

#include <comm/Clock.h>

namespace kesa::commadapter {

bool PeerLimit::pass(std::string_view text, std::string& changed)
{
    constexpr std::size_t MOST_BYTES = 1000;
    const auto end = m_lines.pass(m_pid, comm::now());
    if (!end) {
        return false;
    }
    if (text.size() > MOST_BYTES) {
        changed.assign(text.substr(0, MOST_BYTES)).append("...").append(*end);
    } else if (!end->empty()) {
        changed.assign(text).append(*end);
    }
    return true;
}

} // namespace kesa::commadapter
