#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_ONCEPERPEER_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_ONCEPERPEER_H

#include <comm/OncePer.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace kesa::commadapter {

/// Thins out what is said of a peer that does the same again and again: `comm::OncePer` a minute for each. One thread
/// at a time.
class OncePerPeer {
public:
    std::optional<std::string> pass(const std::string& peer, comm::TimeNs now)
    {
        if (m_peers.size() >= MOST && m_peers.count(peer) == 0) {
            std::erase_if(m_peers, [now](const auto& each) { return each.second.isDue(now); });
            if (m_peers.size() >= MOST) {
                m_peers.clear(); // costs a line too many of each
            }
        }
        return m_peers.try_emplace(peer, 60 * comm::SECOND).first->second.pass(now);
    }

private:
    static constexpr std::size_t MOST = 100;

    std::map<std::string, comm::OncePer> m_peers;
};

} // namespace kesa::commadapter

#endif
