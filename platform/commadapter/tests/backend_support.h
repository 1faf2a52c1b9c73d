#ifndef KESA_COMMADAPTER_TESTS_BACKEND_SUPPORT_H
#define KESA_COMMADAPTER_TESTS_BACKEND_SUPPORT_H

// The contract of `IBackend`, checked from where its users stand: a `Client` is the listener of one client object and
// makes the handlers of its requests, a `CheckedService` stands where a service stands. What breaks a rule fails the
// test, by the name of the rule:
//   alternation         connected and disconnected strictly alternate, beginning with connected
//   error-never         `clientError` is not called
//   after-release       no listener call after `release` has returned
//   one-end             one end per request: a terminal call or a cancel, nothing after it
//   old-value           no value of an earlier connection
//   ends-first          all requests of a connection have ended before the next connected
//   after-unprovide     no call into a service after `unprovide` has returned
//   known-cancel        a service is told to cancel open requests only, each once

#include "backend/CommBackend.h"
#include "transport/MemoryNetwork.h"

#include <comm/Condition.h>
#include <comm/SimulatedScheduler.h>
#include <kesa/IClientConnectionListener.h>
#include <kesa/IKesaApi.h>
#include <kesa/RequestContext.h>
#include <kesa/headers.h>
#include <rules/readRules.h>
#include <rules/systemAccounts.h>
#include <tracing/CapturingSink.h>
#include <util/config/JSONParser.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kesa::commadapter::test {

inline Request retrieve(const std::string& path, std::string_view body = {})
{
    return Request("retrieve", path, Payload::createFromString(std::string(body), "plain/text"));
}

inline Request withSemantic(Request request, std::string_view semantic)
{
    request.setHeader(headers::RESPONSE_SEMANTIC, std::string(semantic));
    return request;
}

inline Request persistent(std::string_view body = {})
{
    return withSemantic(retrieve("/stream", body), "persistent-stream");
}

/// What a handler does that takes long.
inline void workFor(comm::TimeNs time)
{
    std::mutex mutex;
    comm::Condition never;
    std::unique_lock lock(mutex);
    comm::waitFor(
        never, lock, [] { return false; }, comm::now() + time);
}

inline void work(comm::TimeNs milliseconds)
{
    workFor(milliseconds * comm::MILLISECOND);
}

inline Response value(std::string text)
{
    return Response(200, Payload::createFromString(std::move(text), "plain/text"));
}

/// How a request has gone so far. Shared by its handler and the test.
struct Outcome {
    std::vector<std::string> values;
    int status = 0; ///< of the error that ended it
    std::string errorText;
    std::string reason; ///< of the same
    bool isCompleted = false;
    bool isCancelled = false; ///< the cancel has returned
    bool isDestroyed = false;
    unsigned connection = 0; ///< count of `connected` when it was issued; 0 before the first
    void* handle = nullptr;
    std::function<void()> onValue;
    std::function<void()> onEnd;

    bool hasEnded() const noexcept { return status != 0 || isCompleted; }
    bool isOver() const noexcept { return hasEnded() || isCancelled; }
};

using Outcomes = std::vector<std::shared_ptr<Outcome>>;

template <class Holds>
std::size_t countOf(const Outcomes& outcomes, const Holds& holds)
{
    return static_cast<std::size_t>(std::count_if(outcomes.begin(), outcomes.end(), holds));
}

/// A client object, released at its end. Its handlers may outlive it.
class Client final : public IClientConnectionListener {
    /// With the lock held.
    template <class Read>
    auto read(const Read& what) const
    {
        const std::lock_guard lock(m_state->lock);
        return what();
    }

public:
    /// Of no client object: makes handlers only.
    explicit Client(std::string name) : m_state(std::make_shared<State>(std::move(name))) {}
    Client(IBackend& backend, const std::string& locator, std::function<void()> changed = {}) : Client(locator)
    {
        onChange = std::move(changed);
        m_backend = &backend;
        m_api.reset(backend.connect(url(locator), this));
        m_api->startConnect();
    }
    ~Client() override { release(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    std::shared_ptr<Outcome> request(const Request& request)
    {
        std::shared_ptr<Outcome> outcome;
        auto handler = makeHandler(outcome);
        outcome->handle = m_api->request(request, std::move(handler));
        return outcome;
    }
    void cancel(Outcome& outcome)
    {
        m_api->cancel(outcome.handle);
        read([&outcome] { return outcome.isCancelled = true; });
    }
    void release(bool serviceRemoved = false)
    {
        if (m_backend != nullptr) {
            m_backend->release(m_api.get(), serviceRemoved);
            forgetBackend();
        }
    }
    /// The backend is stopped, or gone; the client object stays.
    void forgetBackend()
    {
        read([this] { return m_state->isReleased = true; });
        m_backend = nullptr;
    }
    /// A handler for the next request, to be issued at once.
    std::unique_ptr<IResponseHandler<Response>> makeHandler(std::shared_ptr<Outcome>& outcome)
    {
        outcome = std::make_shared<Outcome>();
        const std::lock_guard lock(m_state->lock);
        outcome->connection = m_state->connections;
        m_state->open.push_back(outcome);
        return std::make_unique<Handler>(m_state, outcome);
    }

    KesaClientApi& api() const noexcept { return *m_api; }
    bool isConnected() const
    {
        return read([this] { return m_state->isConnected; });
    }
    /// How often it has connected.
    unsigned connections() const
    {
        return read([this] { return m_state->connections; });
    }
    /// While other threads may change it.
    bool isDestroyed(const Outcome& outcome) const
    {
        return read([&outcome] { return outcome.isDestroyed; });
    }

    std::function<void()> onChange;

private:
    struct State {
        explicit State(std::string clientName) : name(std::move(clientName)) {}
        void expect(bool holds, const char* rule, const std::string& what) const
        {
            EXPECT_TRUE(holds) << rule << ": " << name << ": " << what;
        }

        const std::string name;
        std::mutex lock;
        bool isConnected = false;
        bool isReleased = false;
        unsigned connections = 0;
        Outcomes open; ///< issued since the last `connected`
    };

    class Handler final : public IResponseHandler<Response> {
    public:
        Handler(std::shared_ptr<State> state, std::shared_ptr<Outcome> outcome)
            : m_state(std::move(state)), m_outcome(std::move(outcome))
        {}
        ~Handler() override
        {
            const std::lock_guard lock(m_state->lock);
            m_outcome->isDestroyed = true;
        }
        bool onNext(const Response& value) override
        {
            hear(m_outcome->onValue, [&] {
                m_state->expect(m_outcome->connection == m_state->connections, "old-value", "a value");
                m_outcome->values.emplace_back(value.getPayload().text());
            });
            return false;
        }
        void onError(const Response& error) override
        {
            hear(m_outcome->onEnd, [&] {
                m_outcome->status = error.getStatus();
                m_outcome->errorText = error.getErrorMessage();
                m_outcome->reason = error.getHeaders()[headers::REASON].stringView();
            });
        }
        void onCompleted() override
        {
            hear(m_outcome->onEnd, [this] { m_outcome->isCompleted = true; });
        }

    private:
        template <class Note>
        void hear(const std::function<void()>& then, const Note& note)
        {
            {
                const std::lock_guard lock(m_state->lock);
                m_state->expect(!m_outcome->isOver(), "one-end", "a call after the end");
                note();
            }
            if (then) {
                then();
            }
        }

        const std::shared_ptr<State> m_state;
        const std::shared_ptr<Outcome> m_outcome;
    };

    void clientConnected() override { change(true); }
    void clientDisconnected() override { change(false); }
    void clientError(unsigned short, const std::string& text) override { m_state->expect(false, "error-never", text); }
    void change(bool isConnected)
    {
        {
            const std::lock_guard lock(m_state->lock);
            m_state->expect(!m_state->isReleased, "after-release", "a listener call");
            m_state->expect(std::exchange(m_state->isConnected, isConnected) != isConnected, "alternation", "twice");
            if (isConnected) {
                ++m_state->connections;
                for (const auto& outcome : std::exchange(m_state->open, {})) {
                    m_state->expect(outcome->isOver(), "ends-first", "a request is open across connections");
                }
            }
        }
        if (onChange) {
            onChange();
        }
    }

    const std::shared_ptr<State> m_state;
    IBackend* m_backend = nullptr;
    std::unique_ptr<KesaClientApi> m_api;
};

/// A service that keeps its requests until the test answers them, but for the paths:
///   /echo   one answer, the request's body, and the end
///   /drop   drops the handler
class CheckedService final : public IKesaApi {
public:
    using Kept = std::shared_ptr<IResponseHandler<Response>>;

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        Kept mine(std::move(handler)); // dies outside of the lock
        std::unique_lock lock(m_lock);
        EXPECT_FALSE(m_isWithdrawn) << "after-unprovide: a request";
        auto* const handle = reinterpret_cast<void*>(++m_lastHandle);
        lock.unlock();
        if (onRequest) {
            onRequest(request);
        }
        if (request.getPath() == "/echo") {
            mine->onNext(Response(200, request.getPayload()));
            mine->onCompleted();
        } else if (request.getPath() != "/drop") {
            lock.lock();
            m_kept.emplace(handle, std::move(mine));
        }
        return handle;
    }
    void cancel(void* handle) override
    {
        std::map<void*, Kept>::node_type node; // dies outside of the lock
        const std::lock_guard lock(m_lock);
        EXPECT_FALSE(m_isWithdrawn) << "after-unprovide: a cancel";
        node = m_kept.extract(handle);
        EXPECT_FALSE(node.empty()) << "known-cancel";
        ++m_cancels;
    }
    /// `unprovide` has returned.
    void withdrawn()
    {
        const std::lock_guard lock(m_lock);
        m_isWithdrawn = true;
    }
    /// The requests that are open, in order of arrival.
    std::vector<Kept> handlers() const
    {
        const std::lock_guard lock(m_lock);
        std::vector<Kept> all;
        for (const auto& [handle, kept] : m_kept) {
            all.push_back(kept);
        }
        return all;
    }
    /// Takes the oldest open request away.
    Kept take()
    {
        const std::lock_guard lock(m_lock);
        return m_kept.empty() ? nullptr : std::move(m_kept.extract(m_kept.begin()).mapped());
    }
    std::size_t open() const { return handlers().size(); }
    unsigned cancels() const
    {
        const std::lock_guard lock(m_lock);
        return m_cancels;
    }

    std::function<void(const Request&)> onRequest; ///< inside the call, before anything else

private:
    mutable std::mutex m_lock;
    std::map<void*, Kept> m_kept;
    std::uintptr_t m_lastHandle = 0;
    unsigned m_cancels = 0;
    bool m_isWithdrawn = false;
};

/// Backends over the memory network in simulated time. The test itself stands where the executor stands.
class SimulatedBackends : public testing::Test {
protected:
    SimulatedBackends() { restart(); }
    ~SimulatedBackends() override
    {
        network.reset();
        comm::Scheduler::install(nullptr);
        ::tracing::setSink(nullptr);
    }
    void restart()
    {
        network.reset();
        scheduler = std::make_unique<comm::SimulatedScheduler>(1);
        comm::Scheduler::install(scheduler.get());
        network = std::make_unique<transport::MemoryNetwork>();
        ::tracing::setSink(traces);
    }
    /// Of the backends that are made from now on.
    void setRules(const std::string& rules)
    {
        util::config::Value list;
        ASSERT_FALSE(util::config::JSONParser().parseString(rules, list));
        std::vector<util::config::Complaint> complaints;
        access = std::make_shared<access::Table>(
            ::geteuid(),
            access::readRules(list, {"access"}, access::accessForm(), access::systemAccounts(), complaints),
            "the table", access::systemAccounts());
        ASSERT_TRUE(complaints.empty());
    }

    std::unique_ptr<IBackend> makeBackend(const std::string& process)
    {
        const std::uint64_t group = ++lastGroup;
        scheduler->setGroup(group);
        auto backend = makeCommBackend(
            process, settings,
            [this, group](std::shared_ptr<comm::Reactor> loop) {
                lastLoop = loop;
                std::vector<std::unique_ptr<transport::ITransport>> transports;
                transports.push_back(network->makeTransport(std::move(loop), group));
                return transports;
            },
            access);
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
    void settle() { runFor(50); }
    void runFor(comm::TimeNs milliseconds) { scheduler->runFor(milliseconds * comm::MILLISECOND); }
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

    std::shared_ptr<access::Table> access;
    CommSettings settings;
    transport::MemoryNetwork::Faults faults; ///< to be set at the network
    std::shared_ptr<::tracing::CapturingSink> traces = std::make_shared<::tracing::CapturingSink>("KESA_COMM");
    std::unique_ptr<comm::SimulatedScheduler> scheduler;
    std::unique_ptr<transport::MemoryNetwork> network;
    std::uint64_t lastGroup = 0;
    std::weak_ptr<comm::Reactor> lastLoop; ///< of the backend that was made last
};

/// A server (group 1) with one service, and a client that is connected to it: another process (group 2), or the same.
class SimulatedPair : public SimulatedBackends {
protected:
    void begin(bool isLocal = false)
    {
        server = makeBackend("server");
        clientBackend = isLocal ? nullptr : makeBackend("client");
        locator = provide(*server, "/service", service);
        client = connect(locator);
        settle();
        ASSERT_TRUE(client->isConnected());
    }
    IBackend& backend() { return clientBackend ? *clientBackend : *server; }
    std::unique_ptr<Client> connect(const std::string& to) { return std::make_unique<Client>(backend(), to); }

    CheckedService service;
    std::unique_ptr<IBackend> server;
    std::unique_ptr<IBackend> clientBackend;
    std::string locator;
    std::unique_ptr<Client> client;
};

/// Persistent streams at a service that sets their policy, and numbered values for them.
class SimulatedStreams : public SimulatedPair {
protected:
    static constexpr std::size_t SEND_QUEUE = 64U << 10U;
    static constexpr std::size_t VALUE_BYTES = 1000;

    SimulatedStreams()
    {
        settings.heartbeat = comm::SECOND;
        settings.sendQueueBytes = SEND_QUEUE;
        service.onRequest = [this](const Request&) {
            const RequestContext& context = *RequestContext::current();
            context.stream->setQueuePolicy(policy);
            peer = context.peer;
        };
    }
    static std::string numbered(int number) { return fmt::format("{:<{}}", number, VALUE_BYTES); }
    /// Sends numbered values until one is refused or `most` have gone; answers how many were accepted.
    static int flood(IResponseHandler<Response>& handler, int most)
    {
        int sent = 0;
        while (sent < most && !handler.onNext(value(numbered(sent)))) {
            ++sent;
        }
        return sent;
    }

    QueuePolicy policy = QueuePolicy::eCUT_STREAM; ///< of the next request
    std::shared_ptr<IPeer> peer;                   ///< of the last one
};

/// Both behave the same: over a connection between two processes, and over the own process's locator.
class BothRoads : public SimulatedPair, public testing::WithParamInterface<bool> {
protected:
    BothRoads()
    {
        settings.maxMessageBytes = 100U << 10U;
        begin(isLocal());
    }
    static bool isLocal() { return GetParam(); }
};

/// Asks, and again whenever it has been answered, as long as it is to.
struct Asker {
    Asker(Client& by, std::function<bool()> isWanted) : client(by), wanted(std::move(isWanted)) { ask(); }
    void ask()
    {
        client.request(retrieve("/echo", "y"))->onEnd = [this, issued = comm::now()] {
            longest = std::max(longest, comm::now() - issued);
            ++answers;
            if (wanted()) {
                ask();
            }
        };
    }

    Client& client;
    const std::function<bool()> wanted;
    comm::TimeNs longest = 0;
    std::size_t answers = 0;
};

} // namespace kesa::commadapter::test

#endif
