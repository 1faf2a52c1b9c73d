// The socket is connected, since only then the kernel tells when there is room in the manager's queue. Where the
// manager has gone, what is told waits for the next thing that is told, and is sent to whoever listens by that name
// then.

#include "ServiceManager.h"

#include <comm/Scheduler.h>

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace registryd {

namespace {

std::string_view variable(const char* name)
{
    const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): read before there are threads
    return value != nullptr ? value : "";
}

/// 0: it is none.
std::uint64_t numberOf(std::string_view text)
{
    std::uint64_t number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() ? number : 0;
}

} // namespace

ServiceManager::Address ServiceManager::readAddress()
{
    Address address;
    const std::string_view text = variable("NOTIFY_SOCKET");
    if (text.size() < 2 || text.size() > sizeof address.name.sun_path || (text[0] != '/' && text[0] != '@')) {
        return address;
    }
    address.name.sun_family = AF_UNIX;
    text.copy(static_cast<char*>(address.name.sun_path), text.size());
    if (text[0] == '@') { // one that is no file
        address.name.sun_path[0] = '\0';
    }
    address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size());
    return address;
}

comm::TimeNs ServiceManager::readBeatLimit()
{
    constexpr std::uint64_t NS_PER_US = comm::MILLISECOND / 1000;
    const std::string_view whom = variable("WATCHDOG_PID"); // a child that inherits the variables is not meant
    const std::uint64_t limitUs = numberOf(variable("WATCHDOG_USEC"));
    const bool isMeant = whom.empty() || numberOf(whom) == static_cast<std::uint64_t>(::getpid());
    return isMeant && limitUs <= comm::NEVER / NS_PER_US ? static_cast<comm::TimeNs>(limitUs * NS_PER_US) : 0;
}

ServiceManager::ServiceManager()
    : m_address(readAddress()), m_beatLimit(m_address.size != 0 ? readBeatLimit() : 0),
      m_loop(m_address.size != 0 ? comm::Scheduler::current().makeReactor("kesa-manager") : nullptr)
{}

ServiceManager::~ServiceManager()
{
    if (m_loop) {
        m_loop->stop();
        disconnect();
    }
}

void ServiceManager::tell(std::string state)
{
    if (m_loop) {
        m_loop->post([this, state = std::move(state)]() mutable {
            m_state = std::move(state);
            send();
        });
    }
}

void ServiceManager::beat()
{
    if (m_loop) {
        m_loop->post([this] {
            m_isBeatDue = true;
            send();
        });
    }
}

void ServiceManager::send()
{
    if (!m_state.empty() && !send(m_state)) {
        m_state.clear();
    }
    if (m_isBeatDue) {
        m_isBeatDue = send("WATCHDOG=1");
    }
    const bool waitsForRoom = m_socket >= 0 && (!m_state.empty() || m_isBeatDue);
    if (waitsForRoom && m_room == 0) {
        m_room = m_loop->watch(m_socket, comm::Reactor::eWRITABLE, [this](unsigned) { send(); });
    } else if (!waitsForRoom && m_room != 0) {
        m_loop->unwatch(std::exchange(m_room, 0));
    }
}

/// True: it has to wait. Without a connection then, there is no manager.
bool ServiceManager::send(std::string_view text)
{
    for (int attempt = 0; attempt < 2; ++attempt) { // another one may listen by the name since the last time
        if (m_socket < 0 && connect()) {
            return true;
        }
        if (::send(m_socket, text.data(), text.size(), MSG_NOSIGNAL) >= 0) {
            return false;
        }
        if (errno == EAGAIN) {
            return true;
        }
        disconnect();
    }
    return true;
}

bool ServiceManager::connect()
{
    m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_socket >= 0 && ::connect(m_socket, reinterpret_cast<const sockaddr*>(&m_address.name), m_address.size) == 0) {
        return false;
    }
    disconnect();
    return true;
}

void ServiceManager::disconnect()
{
    if (m_room != 0) {
        m_loop->unwatch(std::exchange(m_room, 0));
    }
    if (m_socket >= 0) {
        ::close(std::exchange(m_socket, -1));
    }
}

} // namespace registryd
