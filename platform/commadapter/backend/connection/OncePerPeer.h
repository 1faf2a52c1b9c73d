#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_ONCEPERPEER_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_ONCEPERPEER_H

#include <comm/Clock.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace kesa::commadapter {

/// Thins out what is said of a peer that does the same again and again: a line at once, then one in a minute. One
/// thread at a time.
class OncePerPeer {
public:
    /// What ends the line, as of `comm::OncePerSecond`. None: no line now.
    std::optional<std::string> pass(const std::string& peer, comm::TimeNs now)
    {
        if (m_peers.size() >= MOST && m_peers.count(peer) == 0) {
            std::erase_if(m_peers, [now](const auto& each) { return each.second.next <= now; });
            if (m_peers.size() >= MOST) {
                m_peers.clear(); // costs a line too many of each
            }
        }
        Peer& known = m_peers[peer];
        if (now < known.next) {
            ++known.missed;
            return std::nullopt;
        }
        known.next = now + 60 * comm::SECOND;
        const unsigned missed = std::exchange(known.missed, 0U);
        return missed == 0 ? "" : "; and " + std::to_string(missed) + " more since the last such line";
    }

private:
    static constexpr std::size_t MOST = 100;
    struct Peer {
        comm::TimeNs next = 0;
        unsigned missed = 0;
    };

    std::map<std::string, Peer> m_peers;
};

} // namespace kesa::commadapter

#endif
