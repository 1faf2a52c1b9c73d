#ifndef KESA_REGISTRYD_SERVICEMANAGER_H
#define KESA_REGISTRYD_SERVICEMANAGER_H

#include <comm/Clock.h>
#include <comm/Reactor.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <memory>
#include <string>
#include <string_view>

namespace registryd {

/// What this process tells the service manager that has started it: the one at $NOTIFY_SOCKET, or nobody. A manager may
/// not read, and others may keep its queue full. So what is told waits on a loop of its own until there is room, and
/// nobody else waits for that. Of states the newest one waits, and one beat.
///
/// Threads: any, but for making and destroying it.
class ServiceManager {
public:
    ServiceManager();
    /// What still waits then is told to nobody.
    ~ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    /// `state`: lines such as "READY=1".
    void tell(std::string state);
    /// That this process does its work, as of the call.
    void beat();
    /// How long the manager waits for a beat before it ends this process; 0: it does not ask for any.
    comm::TimeNs beatLimit() const { return m_beatLimit; }

private:
    struct Address {
        sockaddr_un name{};
        socklen_t size = 0; ///< 0: there is no manager
    };
    static Address readAddress();
    static comm::TimeNs readBeatLimit();

    // On the loop.
    void send();
    [[nodiscard]] bool send(std::string_view text);
    [[nodiscard]] bool connect();
    void disconnect();

    const Address m_address;
    const comm::TimeNs m_beatLimit;
    const std::shared_ptr<comm::Reactor> m_loop; ///< null: there is no manager
    // The loop's own.
    std::string m_state; ///< empty: the newest one is told
    bool m_isBeatDue = false;
    int m_socket = -1;
    comm::Reactor::Id m_room = 0; ///< watched while something waits
};

} // namespace registryd

#endif
