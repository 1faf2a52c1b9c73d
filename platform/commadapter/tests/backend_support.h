#ifndef KESA_COMMADAPTER_TESTS_BACKEND_SUPPORT_H
#define KESA_COMMADAPTER_TESTS_BACKEND_SUPPORT_H

#include "StreamCheckers.h"
#include "backend/CommBackend.h"
#include "transport/MemoryNetwork.h"

#include <comm/SimulatedScheduler.h>
#include <tracing/CapturingSink.h>

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::commadapter::test {

inline Request retrieve(const std::string& path, std::string_view body = {})
{
    return Request("retrieve", path, Payload::createFromString(std::string(body), "plain/text"));
}

inline Response value(std::string text)
{
    return Response(200, Payload::createFromString(std::move(text), "plain/text"));
}

/// A client object with its checker. Released at its end.
class Client {
public:
    Client(IBackend& backend, const std::string& locator)
        : checker(locator), m_backend(&backend), m_api(backend.connect(url(locator), &checker))
    {}
    ~Client() { release(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    Client& start()
    {
        m_api->startConnect();
        return *this;
    }
    std::shared_ptr<Outcome> request(const Request& request)
    {
        std::shared_ptr<Outcome> outcome;
        auto handler = checker.handler(outcome);
        outcome->handle = m_api->request(request, std::move(handler));
        return outcome;
    }
    void cancel(Outcome& outcome)
    {
        m_api->cancel(outcome.handle);
        checker.cancelled(outcome);
    }
    void release(bool serviceRemoved = false)
    {
        if (m_backend != nullptr && m_api) {
            m_backend->release(m_api.get(), serviceRemoved);
            checker.released();
            m_backend = nullptr;
        }
    }
    /// The backend is gone; the client object stays.
    void forgetBackend() { m_backend = nullptr; }
    KesaClientApi& api() const noexcept { return *m_api; }

    ClientChecker checker;

private:
    IBackend* m_backend;
    std::unique_ptr<KesaClientApi> m_api;
};

/// Backends over the memory network in simulated time. The test itself stands where the executor stands.
class SimulatedBackends : public testing::Test {
protected:
    SimulatedBackends() { use(1); }
    ~SimulatedBackends() override
    {
        network.reset();
        comm::Scheduler::install(nullptr);
        ::tracing::setSink(nullptr);
    }

    void use(std::uint64_t seed)
    {
        network.reset();
        comm::Scheduler::install(nullptr);
        scheduler = std::make_unique<comm::SimulatedScheduler>(seed);
        comm::Scheduler::install(scheduler.get());
        network = std::make_unique<transport::MemoryNetwork>();
        ::tracing::setSink(traces);
    }
    std::unique_ptr<IBackend> makeBackend(const std::string& process)
    {
        const std::uint64_t group = ++lastGroup;
        scheduler->setGroup(group);
        auto backend = makeCommBackend(process, settings, [this, group](std::shared_ptr<comm::Reactor> loop) {
            lastLoop = loop;
            std::vector<std::unique_ptr<transport::ITransport>> transports;
            transports.push_back(network->makeTransport(std::move(loop), group));
            return transports;
        });
        backend->start();
        return backend;
    }
    /// What a process does that gets SIGKILL.
    void kill(std::unique_ptr<IBackend>& backend, std::uint64_t group)
    {
        scheduler->killGroup(group);
        network->kill(group);
        backend.reset();
    }
    /// Runs for a simulated while that is long enough for everything but heartbeats and lingering.
    void settle() { scheduler->runFor(50 * comm::MILLISECOND); }
    /// Steps until `holds`, and answers how much simulated time that took.
    template <class Holds>
    comm::TimeNs timeUntil(const Holds& holds)
    {
        const comm::TimeNs start = scheduler->now();
        while (!holds() && scheduler->now() < start + 100 * comm::SECOND) {
            scheduler->runFor(comm::MILLISECOND / 10);
        }
        return scheduler->now() - start;
    }
    static std::string provide(IBackend& backend, const std::string& path, IKesaApi& service)
    {
        url locator;
        const bool failed = backend.provideOnPath(path, &service, locator);
        return failed ? std::string() : locator.toString();
    }

    CommSettings settings;
    std::shared_ptr<::tracing::CapturingSink> traces = std::make_shared<::tracing::CapturingSink>("KESA_COMM");
    std::unique_ptr<comm::SimulatedScheduler> scheduler;
    std::unique_ptr<transport::MemoryNetwork> network;
    std::uint64_t lastGroup = 0;
    std::weak_ptr<comm::Reactor> lastLoop; ///< of the backend that was made last
};

/// A server (group 1) with one service, and a client (group 2) that is connected to it.
class SimulatedPair : public SimulatedBackends {
protected:
    void begin()
    {
        server = makeBackend("server");
        clientBackend = makeBackend("client");
        client = std::make_unique<Client>(*clientBackend, provide(*server, "/service", service));
        client->start();
        settle();
    }

    CheckedService service{"service"};
    std::unique_ptr<IBackend> server;
    std::unique_ptr<IBackend> clientBackend;
    std::unique_ptr<Client> client;
};

} // namespace kesa::commadapter::test

#endif
