#include "transport/MemoryNetwork.h"

#include "transport/Authority.h"
#include "transport/MemoryLink.h"

#include <kesa/processName.h>
#include <obr/GlobalErrorHandler.h>

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

namespace kesa::commadapter::transport {

namespace memory {

/// One transport as the network sees it; guarded by the network's lock.
struct Port {
    std::weak_ptr<comm::Reactor> loop;
    std::uint64_t group = 0;
    std::string process; ///< under which it listens; empty while it does not
    std::shared_ptr<ITransport::Accept> accept;
    struct Watch {
        std::string process;
        std::shared_ptr<util::UniqueFunction<void()>> appeared;
    };
    std::map<comm::Reactor::Id, Watch> watches;
    std::map<std::string, std::weak_ptr<Port>> reached; ///< by the last connect to a process
    bool isClosed = false;                              ///< by its owner or with its process
};

struct Network : Streams {
    std::map<std::string, std::shared_ptr<Port>> listening;
    std::vector<std::shared_ptr<Port>> ports;
    comm::Reactor::Id lastWatch = 0;
    comm::TimeNs longestDelay = 0;
    std::string realm;
};

} // namespace memory

class MemoryNetwork::Impl : public memory::Network {};

namespace {

using memory::Network;
using memory::Port;

/// Runs `task` on the loop of `port`, unless that is closed by then. Hold the lock only for a task that owns nothing:
/// a loop that has stopped drops it at once.
template <class Task>
void postWhileOpen(const std::shared_ptr<Network>& network, const std::shared_ptr<Port>& port, Task task)
{
    const auto loop = port->loop.lock();
    if (!loop) {
        return;
    }
    loop->post(
        [weakNetwork = std::weak_ptr(network), weakPort = std::weak_ptr(port), task = std::move(task)]() mutable {
            const auto held = weakNetwork.lock();
            const auto owner = weakPort.lock();
            if (!held || !owner) {
                return;
            }
            std::unique_lock lock(held->lock);
            const bool isClosed = owner->isClosed;
            lock.unlock();
            if (!isClosed) {
                task(*owner);
            }
        });
}

void postAppeared(const std::shared_ptr<Network>& network, const std::shared_ptr<Port>& port, comm::Reactor::Id id)
{
    postWhileOpen(network, port, [id](Port& watcher) {
        // Without the lock: only this loop changes the watches.
        const auto found = watcher.watches.find(id);
        if (found != watcher.watches.end()) {
            const auto appeared = found->second.appeared;
            (*appeared)();
        }
    });
}

void closePort(Network& network, const std::shared_ptr<Port>& port)
{
    port->isClosed = true;
    std::erase(network.ports, port);
    if (!port->process.empty()) {
        network.listening.erase(port->process);
        port->process.clear();
    }
}

bool isBetween(const memory::Link& link, std::uint64_t a, std::uint64_t b)
{
    const std::uint64_t first = link.ends[0].group;
    const std::uint64_t second = link.ends[1].group;
    return (first == a && second == b) || (first == b && second == a);
}

class MemoryTransport final : public ITransport {
public:
    MemoryTransport(std::shared_ptr<Network> network, std::shared_ptr<comm::Reactor> loop, std::uint64_t group)
        : m_network(std::move(network)), m_loop(std::move(loop)), m_port(std::make_shared<Port>())
    {
        m_port->loop = m_loop;
        m_port->group = group;
        const std::lock_guard lock(m_network->lock);
        m_network->ports.push_back(m_port);
    }
    ~MemoryTransport() override
    {
        const std::lock_guard lock(m_network->lock);
        closePort(*m_network, m_port);
    }
    MemoryTransport(const MemoryTransport&) = delete;
    MemoryTransport& operator=(const MemoryTransport&) = delete;

    std::string scheme() const override { return "ipc"; }
    std::string runDirectory() const override { return {}; }
    bool listen(const std::string& process, Accept accept, std::string& why) override;
    std::optional<Endpoint> ownEndpoint() const override;
    std::optional<Endpoint> parse(const url& locator) const override { return parseProcessAuthority(locator, "ipc"); }
    bool canHandle(const Endpoint& endpoint) const override
    {
        return endpoint.scheme == "ipc" && (endpoint.realm.empty() || endpoint.realm == m_network->realm);
    }
    void connect(const Endpoint& endpoint, util::UniqueFunction<void(Connected)> done) override;
    comm::Reactor::Id watchEndpoint(const Endpoint& endpoint, util::UniqueFunction<void()> appeared) override;
    void unwatchEndpoint(comm::Reactor::Id id) override;
    PeerIdentity whoListens(const std::string& process) const override;
    comm::TimeNs longestPause() const noexcept override { return comm::SECOND; }
    void close() override;

private:
    void onLoop(const char* function) const
    {
        obr::GlobalErrorHandler::doAssert(m_loop->isCurrent(), "m_loop->isCurrent()", __FILE__, __LINE__, function,
                                          "only on the loop of the transport");
    }
    Connected open(const Endpoint& endpoint, std::shared_ptr<Port>& listener, std::unique_ptr<IStream>& accepted);

    const std::shared_ptr<Network> m_network;
    const std::shared_ptr<comm::Reactor> m_loop;
    const std::shared_ptr<Port> m_port;
};

bool MemoryTransport::listen(const std::string& process, Accept accept, std::string& why)
{
    const std::lock_guard lock(m_network->lock);
    if (m_port->process == process && !process.empty()) {
        return false;
    }
    const auto holder = m_network->listening.find(process);
    if (holder != m_network->listening.end()) {
        why = fmt::format("the name \"{}\" is held by process {}", process, holder->second->group);
        return true;
    }
    if (m_port->isClosed || !m_port->process.empty() || !isProcessName(process)) {
        why = m_port->isClosed ? std::string("the transport is closed") : complaintAboutProcessName(process);
        return true;
    }
    m_port->process = process;
    m_port->accept = std::make_shared<Accept>(std::move(accept));
    m_network->listening.emplace(process, m_port);
    for (const auto& port : m_network->ports) {
        for (const auto& [id, watch] : port->watches) {
            if (watch.process == process) {
                postAppeared(m_network, port, id);
            }
        }
    }
    return false;
}

std::optional<Endpoint> MemoryTransport::ownEndpoint() const
{
    const std::lock_guard lock(m_network->lock);
    if (m_port->process.empty()) {
        return std::nullopt;
    }
    return Endpoint{"ipc", m_port->process, m_network->realm, {}};
}

ITransport::Connected MemoryTransport::open(const Endpoint& endpoint, std::shared_ptr<Port>& listener,
                                            std::unique_ptr<IStream>& accepted)
{
    if (!canHandle(endpoint)) {
        return {nullptr, Failure::eOTHER, "the locator is of another realm"};
    }
    const std::lock_guard lock(m_network->lock);
    const auto found = m_network->listening.find(endpoint.process);
    if (found == m_network->listening.end()) {
        return {nullptr, Failure::eMISSING, "nobody listens"};
    }
    if (m_network->happens(m_network->faults.refusePercent)) {
        return {nullptr, Failure::eBUSY, "too many connections wait to be accepted"};
    }
    listener = found->second;
    m_port->reached[endpoint.process] = listener;
    const auto link = std::make_shared<memory::Link>();
    link->ends[0].loop = m_port->loop;
    link->ends[0].group = m_port->group;
    link->ends[1].loop = listener->loop;
    link->ends[1].group = listener->group;
    m_network->links.push_back(link);
    accepted = memory::makeStream(m_network, link, 1);
    std::unique_ptr<IStream> own = memory::makeStream(m_network, link, 0);
    return {std::move(own), Failure::eOTHER, {}};
}

void MemoryTransport::connect(const Endpoint& endpoint, util::UniqueFunction<void(Connected)> done)
{
    onLoop(__func__);
    std::shared_ptr<Port> listener;
    std::unique_ptr<IStream> accepted;
    Connected connected = open(endpoint, listener, accepted);
    if (accepted) {
        postWhileOpen(m_network, listener,
                      [stream = std::move(accepted)](Port& port) mutable { (*port.accept)(std::move(stream)); });
    }
    postWhileOpen(m_network, m_port, [done = std::move(done), connected = std::move(connected)](Port&) mutable {
        done(std::move(connected));
    });
}

comm::Reactor::Id MemoryTransport::watchEndpoint(const Endpoint& endpoint, util::UniqueFunction<void()> appeared)
{
    onLoop(__func__);
    if (!canHandle(endpoint)) {
        return 0;
    }
    const std::lock_guard lock(m_network->lock);
    const comm::Reactor::Id id = ++m_network->lastWatch;
    m_port->watches.emplace(
        id, Port::Watch{endpoint.process, std::make_shared<util::UniqueFunction<void()>>(std::move(appeared))});
    const auto& reached = m_port->reached[endpoint.process];
    const auto listener = m_network->listening.find(endpoint.process);
    if (listener != m_network->listening.end() &&
        (reached.owner_before(listener->second) || listener->second.owner_before(reached))) {
        postAppeared(m_network, m_port, id);
    }
    return id;
}

void MemoryTransport::unwatchEndpoint(comm::Reactor::Id id)
{
    onLoop(__func__);
    std::unique_lock lock(m_network->lock);
    const auto node = m_port->watches.extract(id); // destroyed after the lock is free
    lock.unlock();
}

PeerIdentity MemoryTransport::whoListens(const std::string& process) const
{
    const std::lock_guard lock(m_network->lock);
    const auto found = m_network->listening.find(process);
    return found == m_network->listening.end() ? PeerIdentity() : memory::identityOf(*m_network, found->second->group);
}

void MemoryTransport::close()
{
    onLoop(__func__);
    const std::lock_guard lock(m_network->lock);
    closePort(*m_network, m_port);
}

} // namespace

MemoryNetwork::MemoryNetwork() : m_impl(std::make_shared<Impl>())
{
    m_impl->realm = makeRealm();
}

MemoryNetwork::~MemoryNetwork() = default;

std::unique_ptr<ITransport> MemoryNetwork::makeTransport(std::shared_ptr<comm::Reactor> loop, std::uint64_t group)
{
    return std::make_unique<MemoryTransport>(m_impl, std::move(loop), group);
}

void MemoryNetwork::setFaults(Faults faults)
{
    const std::lock_guard lock(m_impl->lock);
    m_impl->longestDelay = std::max(m_impl->longestDelay, faults.longestDelay);
    m_impl->faults = std::move(faults);
}

comm::TimeNs MemoryNetwork::longestDelay() const
{
    const std::lock_guard lock(m_impl->lock);
    return m_impl->longestDelay;
}

void MemoryNetwork::kill(std::uint64_t group)
{
    const std::lock_guard lock(m_impl->lock);
    ++m_impl->deaths[group];
    const auto ports = m_impl->ports;
    for (const auto& port : ports) {
        if (port->group == group) {
            closePort(*m_impl, port);
        }
    }
    const auto links = m_impl->links;
    for (const auto& link : links) {
        for (std::size_t side = 0; side < link->ends.size(); ++side) {
            if (link->ends[side].group != group) {
                continue;
            }
            link->ends[1 - side].isPeerGone = true;
            link->ends[1 - side].hasPeerEnded = true;
            const bool isHeldOpen = m_impl->happens(m_impl->faults.heldOpenPercent);
            memory::closeEnd(m_impl, link, side, "the peer's process has ended", isHeldOpen);
        }
    }
}

void MemoryNetwork::cut(std::uint64_t a, std::uint64_t b)
{
    const std::lock_guard lock(m_impl->lock);
    for (const auto& link : m_impl->links) {
        if (isBetween(*link, a, b)) {
            memory::cutLink(m_impl, link);
        }
    }
}

void MemoryNetwork::setUser(std::uint64_t group, std::int64_t uid)
{
    const std::lock_guard lock(m_impl->lock);
    m_impl->users[group] = uid;
}

void MemoryNetwork::repeatInstance(std::uint64_t liar, std::uint64_t other)
{
    const std::lock_guard lock(m_impl->lock);
    m_impl->repeated[liar] = other;
}

bool MemoryNetwork::isConnected(std::uint64_t client, std::uint64_t server) const
{
    const std::lock_guard lock(m_impl->lock);
    const auto isOpen = [](const memory::End& end) { return !end.isClosed && !end.isOver; };
    bool isThere = false;
    for (const auto& link : m_impl->links) {
        if (link->ends[0].group == client && link->ends[1].group == server) {
            if (!isOpen(link->ends[0]) || !isOpen(link->ends[1])) {
                return false;
            }
            isThere = true;
        }
    }
    return isThere;
}

std::size_t MemoryNetwork::openStreams() const
{
    const std::lock_guard lock(m_impl->lock);
    std::size_t count = 0;
    for (const auto& link : m_impl->links) {
        count += static_cast<std::size_t>(
            std::count_if(link->ends.begin(), link->ends.end(), [](const memory::End& end) { return !end.isClosed; }));
    }
    return count;
}

const std::string& MemoryNetwork::realm() const noexcept
{
    return m_impl->realm;
}

} // namespace kesa::commadapter::transport
