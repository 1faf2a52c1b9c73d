// The backend itself only translates locators and hands on: services to the `ServiceTable`, client objects to the
// `ClientTable`. Its operations come from the executor; what they need of the loop they post, and wait for only where
// the contract promises that something has ended.

#include "backend/CommBackend.h"

#include "backend/LocalStream.h"
#include "backend/Locators.h"
#include "backend/ProcessDescription.h"
#include "backend/ProcessService.h"
#include "backend/client/ClientObject.h"
#include "backend/client/ClientTable.h"
#include "backend/connection/IoLoop.h"
#include "backend/connection/channel.h"
#include "backend/server/ServiceTable.h"

#include <comm/wallClock.h>
#include <kesa/Path.h>
#include <kesa/RequestContext.h>
#include <kesa/errors.h>
#include <obr/ErrorOutput.h>
#include <obr/GlobalErrorHandler.h>

#include <algorithm>

namespace kesa::commadapter {

IBackend::~IBackend() = default;

namespace {

using Holds = std::vector<std::shared_ptr<const comm::LoopHold>>;
using Transports = std::vector<std::shared_ptr<transport::ITransport>>;

class CommBackend final : public IBackend {
public:
    CommBackend(std::string process, const CommSettings& settings, TransportFactory transports,
                std::shared_ptr<access::Table> access)
        : m_settings(settings), m_makeTransports(std::move(transports)), m_process(std::move(process)),
          m_access(std::move(access))
    {}
    ~CommBackend() override { CommBackend::stop(); }
    CommBackend(const CommBackend&) = delete;
    CommBackend& operator=(const CommBackend&) = delete;

    void start() override;
    void stop() override;
    bool canHandle(const url& locator) override { return find(locator).has_value(); }
    bool provideOnPath(const std::string& path, IKesaApi* service, url& locator) override;
    bool provideOnLocator(const url& locator, IKesaApi* service) override;
    void unprovide(const url& locator) override;
    KesaClientApi* connect(const url& locator, IClientConnectionListener* listener) override;
    void release(IKesaApi* client, bool serviceRemoved) override;
    bool isLocal(const url& locator) override;
    std::string describe() override;
    std::shared_ptr<const comm::LoopHold> hold() const override { return m_loop ? m_loop->hold() : nullptr; }
    void describeHolds(const Holds& holds) override;
    void stayFindable() override
    {
        for (const auto& transport : m_transports) {
            transport->watchOwnEndpoint();
        }
    }

private:
    std::optional<Place> find(const url& locator) const
    {
        return m_locators ? m_locators->find(locator) : std::nullopt;
    }
    bool isOwnName(const transport::Endpoint& endpoint) const { return endpoint.process == m_process; }
    bool claimName(const std::shared_ptr<transport::ITransport>& transport);
    bool provide(const std::string& path, IKesaApi* service);
    [[nodiscard]] static bool refuse(const std::string& reason);
    MakeHello makeHello() const;
    OpenLocal makeOpenLocal() const;
    std::string describeNow() const;

    const CommSettings m_settings;
    const TransportFactory m_makeTransports;
    const std::string m_process;
    const std::shared_ptr<access::Table> m_access;
    obr::UUID m_instance;           ///< of the present start, as the next one
    comm::TimeNs m_started = 0;     ///< on the wall clock
    std::shared_ptr<IoLoop> m_loop; ///< null before `start` and after `stop`
    std::optional<Locators> m_locators;
    Transports m_transports; ///< the first one is what `provideOnPath` answers with
    ProcessService m_ownService{[this] { return describeNow(); },
                                [this](const util::config::Value& question) {
                                    return m_services->explainAccess(question, RequestContext::current());
                                }};
    std::shared_ptr<ServiceTable> m_services;
    std::shared_ptr<ClientTable> m_clients;
    Holds m_holds;              ///< of the loop's
    std::string m_claimFailure; ///< the last one traced
};

void CommBackend::start()
{
    if (m_loop) {
        return;
    }
    m_instance = obr::UUID::generate();
    m_started = comm::wallClock();
    m_loop = std::make_shared<IoLoop>(m_settings);
    for (auto& transport : m_makeTransports(m_loop->reactor())) {
        m_transports.push_back(std::move(transport));
    }
    m_locators.emplace(m_settings.routes, m_transports);
    m_services = std::make_shared<ServiceTable>(
        m_loop, makeHello(), ProvidedService{std::string(ProcessService::PATH), &m_ownService}, m_access);
    m_clients = std::make_shared<ClientTable>(m_loop, makeHello(), makeOpenLocal());
}

void CommBackend::stop()
{
    if (!m_loop) {
        return;
    }
    if (m_loop->isCurrent()) {
        obr::GlobalErrorHandler::doAssert(false, "!m_loop->isCurrent()", __FILE__, __LINE__, __func__,
                                          "a backend cannot be stopped from its own I/O loop");
        return;
    }
    m_loop->runAndWait("stop", [this] {
        m_services->stop();
        m_clients->stop();
        for (const auto& transport : m_transports) {
            transport->close();
        }
    });
    m_loop->reactor()->stop();
    m_services->abandon();
    m_clients->abandon();
    m_locators.reset();
    m_transports.clear();
    m_services.reset();
    m_clients.reset();
    m_loop.reset();
}

/// The transport listens under the process's name from the first service on.
bool CommBackend::claimName(const std::shared_ptr<transport::ITransport>& transport)
{
    std::string why;
    const bool failed = transport->listen(
        m_process,
        [loop = m_loop, services = std::weak_ptr(m_services),
         weak = std::weak_ptr(transport)](std::unique_ptr<transport::IStream> stream) {
            const IoLoop::Turn turn(*loop);
            if (const auto held = services.lock()) {
                const auto listening = weak.lock();
                held->accept(std::move(stream), listening ? listening->scheme() : std::string(), weak);
            }
        },
        why);
    if (failed && why != m_claimFailure) {
        KESA_TRACE(CHANNEL, 4, "[claimName] '%s' cannot provide services: %s", m_process.c_str(), why.c_str());
    }
    m_claimFailure = failed ? why : std::string();
    return failed;
}

bool CommBackend::provide(const std::string& path, IKesaApi* service)
{
    if (service == nullptr || !Path::isCanonical(path)) {
        return refuse("'" + path + "' is no canonical path, or has no service object");
    }
    return m_services->provide(path, service) && refuse("'" + path + "' is provided already");
}

/// True, with the reason for whoever asked.
bool CommBackend::refuse(const std::string& reason)
{
    KESA_TRACE(CHANNEL, 3, "[provide] %s", reason.c_str());
    return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 7, reason);
}

bool CommBackend::provideOnPath(const std::string& path, IKesaApi* service, url& locator)
{
    if (m_transports.empty()) {
        return refuse("the backend is not started");
    }
    if (claimName(m_transports.front())) {
        return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 7, m_claimFailure);
    }
    const auto endpoint = m_transports.front()->ownEndpoint();
    if (!endpoint || provide(path, service)) {
        return true;
    }
    locator = Locators::make(*endpoint, path);
    return false;
}

bool CommBackend::provideOnLocator(const url& locator, IKesaApi* service)
{
    const auto place = find(locator);
    if (!place || !isOwnName(place->destination.endpoint)) {
        return refuse("'" + locator.toString() + "' is not a locator of this process, '" + m_process + "'");
    }
    if (claimName(place->destination.transport)) {
        return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 7, m_claimFailure);
    }
    return provide(place->path, service);
}

void CommBackend::unprovide(const url& locator)
{
    const auto place = find(locator);
    if (place && isOwnName(place->destination.endpoint)) {
        m_services->withdraw(place->path);
    }
}

KesaClientApi* CommBackend::connect(const url& locator, IClientConnectionListener* listener)
{
    auto place = find(locator);
    if (!place || listener == nullptr) {
        return nullptr;
    }
    const auto client = std::make_shared<ClientState>(place->path, listener);
    return new ClientObject(m_clients->use(place->destination), client);
}

void CommBackend::release(IKesaApi* client, bool serviceRemoved)
{
    if (auto* const object = dynamic_cast<ClientObject*>(client)) {
        object->release(serviceRemoved);
    } else {
        KESA_TRACE(CHANNEL, 3, "[release] %p is no client object of this backend", static_cast<void*>(client));
    }
}

bool CommBackend::isLocal(const url& locator)
{
    const auto place = find(locator);
    return place && isOwnName(place->destination.endpoint) && !claimName(place->destination.transport);
}

std::string CommBackend::describe()
{
    std::string description;
    if (m_loop) {
        m_loop->runAndWait("describe", [this, &description] { description = describeNow(); });
    }
    return description;
}

void CommBackend::describeHolds(const Holds& holds)
{
    if (m_loop) {
        m_loop->runAndWait("describeHolds", [this, &holds] { m_holds = holds; });
    }
}

/// Everything is read where it is kept anyway; nothing is counted for it. Loop only.
std::string CommBackend::describeNow() const
{
    constexpr std::size_t MOST_BYTES = std::size_t{1} << 20U;
    ProcessDescription description;
    description.process = m_process;
    description.instance = m_instance;
    description.started = m_started;
    description.document = m_settings.document;
    if (!m_transports.empty()) {
        const transport::ITransport& transport = *m_transports.front();
        const auto endpoint = transport.ownEndpoint();
        description.realm = endpoint ? endpoint->realm : std::string();
        description.runDirectory = transport.runDirectory();
    }
    description.serviceCount = m_services->addPaths(description.services, ProcessDescription::MOST_NAMED);
    description.areServicesClosed = m_services->areClosed();
    auto& connections = description.connections;
    description.connectionCount = m_clients->addFacts(connections, ProcessDescription::MOST_NAMED);
    description.connectionCount +=
        m_services->addFacts(connections, ProcessDescription::MOST_NAMED - connections.size());
    description.queuedBytes = m_loop->queued().now().all;
    for (const auto& hold : m_holds) {
        if (const comm::TimeNs held = hold->heldFor(); held > ProcessDescription::LONG_HOLD) {
            description.holds.push_back({hold->loop(), held, hold->holder()});
        }
    }
    return description.toJson(std::min<std::size_t>(MOST_BYTES, m_settings.maxMessageBytes / 2));
}

/// Says what is known of this process when a connection begins.
MakeHello CommBackend::makeHello() const
{
    return [process = m_process, instance = m_instance, transports = m_transports] {
        protocol::Hello hello;
        hello.process = process;
        hello.instance = instance;
        for (const auto& transport : transports) {
            if (const auto endpoint = transport->ownEndpoint()) {
                hello.realm = hello.realm.empty() ? endpoint->realm : hello.realm;
                hello.listeners.push_back(endpoint->toString());
            }
        }
        return hello;
    };
}

/// Own locators need no socket. While the name is another process's, they lead there as any other.
OpenLocal CommBackend::makeOpenLocal() const
{
    return [loop = std::weak_ptr(m_loop), services = std::weak_ptr(m_services)](
               const Destination& destination) -> std::unique_ptr<transport::IStream> {
        const auto endpoint = destination.transport->ownEndpoint();
        const auto heldLoop = loop.lock();
        const auto heldServices = services.lock();
        const std::string& realm = destination.endpoint.realm; // else of its namesake in the directory made anew
        const bool isOwn = endpoint && endpoint->process == destination.endpoint.process &&
                           (realm.empty() || realm == endpoint->realm);
        if (!isOwn || !heldLoop || !heldServices) {
            return nullptr;
        }
        auto [client, server] = makeLocalStreams(heldLoop->reactor());
        heldServices->accept(std::move(server), "local");
        return std::move(client);
    };
}

} // namespace

std::unique_ptr<IBackend> makeCommBackend(const std::string& process, const CommSettings& settings,
                                          TransportFactory transports, std::shared_ptr<access::Table> access)
{
    return std::make_unique<CommBackend>(process, settings, std::move(transports), std::move(access));
}

} // namespace kesa::commadapter
