#ifndef COMM_PEERLINES_H
#define COMM_PEERLINES_H

#include <comm/Clock.h>
#include <obr/api.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace comm {

/// Bounds how many lines each peer can put into the log of this process: so many in a second, then none. Peers are told
/// apart by their pids, so a process gains nothing by more connections. Any thread.
class KESA_API PeerLines {
public:
    static constexpr unsigned LINES = 20; ///< in a second

    /// What ends a line about the peer: mostly nothing, else what becomes or became of others. None: no line now.
    std::optional<std::string> pass(std::int64_t pid, TimeNs now);

private:
    struct Account {
        TimeNs end = 0;
        unsigned lines = 0;
        std::uint64_t leftOut = 0;
    };
    static constexpr std::size_t MOST = 100;

    Account& accountOf(std::int64_t& pid, TimeNs now);

    std::mutex m_mutex;
    std::map<std::int64_t, Account> m_accounts;
};

} // namespace comm

#endif
