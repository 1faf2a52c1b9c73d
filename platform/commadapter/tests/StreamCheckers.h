#ifndef KESA_COMMADAPTER_TESTS_STREAMCHECKERS_H
#define KESA_COMMADAPTER_TESTS_STREAMCHECKERS_H

// The contract of `IBackend`, checked from where its users stand. A `ClientChecker` listens for one client object and
// makes the handlers of its requests; a `CheckedService` stands where a service stands. What breaks a rule is recorded
// in `Violations`, by the name of the rule:
//   alternation         connected and disconnected strictly alternate, beginning with connected
//   error-never         `clientError` is not called
//   after-release       no listener call after `release` has returned
//   one-end             one end per request: a terminal call or a cancel, nothing after it
//   old-value           no value of an earlier connection
//   ends-first          all requests of a connection have ended before the next connected
//   after-unprovide     no call into a service after `unprovide` has returned
//   known-cancel        a service is told to cancel open requests only, each once

#include <kesa/IClientConnectionListener.h>
#include <kesa/IKesaApi.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kesa::commadapter::test {

/// Any thread.
class Violations {
public:
    void add(const std::string& rule, const std::string& what)
    {
        const std::lock_guard lock(m_lock);
        m_found.push_back(rule + ": " + what);
    }
    std::vector<std::string> take()
    {
        const std::lock_guard lock(m_lock);
        return std::exchange(m_found, {});
    }

private:
    std::mutex m_lock;
    std::vector<std::string> m_found;
};

/// How a request has gone so far. Shared by its handler and the test.
struct Outcome {
    std::vector<std::string> values;
    int status = 0; ///< of the error that ended it
    std::string errorText;
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

class ClientChecker final : public IClientConnectionListener {
public:
    ClientChecker(Violations& violations, std::string name)
        : m_state(std::make_shared<State>(violations, std::move(name)))
    {}

    void clientConnected() override
    {
        {
            const std::lock_guard lock(m_state->lock);
            m_state->change(true);
            for (const auto& outcome : m_state->open) {
                m_state->expect(outcome->isOver(), "ends-first", "a request is open across connections");
            }
            m_state->open.clear();
            ++m_state->connections;
        }
        if (onConnected) {
            onConnected();
        }
    }
    void clientDisconnected() override
    {
        {
            const std::lock_guard lock(m_state->lock);
            m_state->change(false);
        }
        if (onDisconnected) {
            onDisconnected();
        }
    }
    void clientError(unsigned short code, const std::string& message) override
    {
        m_state->expect(false, "error-never", (std::to_string(code) + " " + message).c_str());
    }

    /// A handler for the next request, to be issued at once. It may outlive the checker.
    std::unique_ptr<IResponseHandler<Response>> handler(std::shared_ptr<Outcome>& outcome)
    {
        outcome = std::make_shared<Outcome>();
        const std::lock_guard lock(m_state->lock);
        outcome->connection = m_state->connections;
        m_state->open.push_back(outcome);
        return std::make_unique<Handler>(m_state, outcome);
    }
    /// `release` has returned.
    void released()
    {
        const std::lock_guard lock(m_state->lock);
        m_state->isReleased = true;
    }
    /// `cancel` of a request has returned.
    void cancelled(Outcome& outcome)
    {
        const std::lock_guard lock(m_state->lock);
        outcome.isCancelled = true;
    }

    bool isConnected() const
    {
        const std::lock_guard lock(m_state->lock);
        return m_state->isConnected;
    }
    /// How often it has connected.
    unsigned connections() const
    {
        const std::lock_guard lock(m_state->lock);
        return m_state->connections;
    }
    /// While other threads may change it.
    bool isDestroyed(const Outcome& outcome) const
    {
        const std::lock_guard lock(m_state->lock);
        return outcome.isDestroyed;
    }

    std::function<void()> onConnected;
    std::function<void()> onDisconnected;

private:
    struct State {
        State(Violations& allViolations, std::string clientName)
            : violations(allViolations), name(std::move(clientName))
        {}
        void change(bool connected)
        {
            expect(!isReleased, "after-release", "a listener call");
            expect(std::exchange(isConnected, connected) != connected, "alternation", "the same twice");
        }
        void expect(bool holds, const char* rule, const char* what)
        {
            if (!holds) {
                violations.add(rule, name + ": " + what);
            }
        }

        Violations& violations;
        const std::string name;
        std::mutex lock;
        bool isConnected = false;
        bool isReleased = false;
        unsigned connections = 0;
        std::vector<std::shared_ptr<Outcome>> open; ///< issued since the last `connected`
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
            {
                const std::lock_guard lock(m_state->lock);
                expectOpen("a value");
                m_state->expect(m_outcome->connection == m_state->connections, "old-value", "a value");
                m_outcome->values.emplace_back(value.getPayload().text());
            }
            if (m_outcome->onValue) {
                m_outcome->onValue();
            }
            return false;
        }
        void onError(const Response& error) override { end("an error", error.getStatus(), error.getErrorMessage()); }
        void onCompleted() override { end("completed", 0, {}); }

    private:
        void expectOpen(const char* what) { m_state->expect(!m_outcome->isOver(), "one-end", what); }
        void end(const char* what, int status, std::string text)
        {
            {
                const std::lock_guard lock(m_state->lock);
                expectOpen(what);
                m_outcome->status = status;
                m_outcome->errorText = std::move(text);
                m_outcome->isCompleted = status == 0;
            }
            if (m_outcome->onEnd) {
                m_outcome->onEnd();
            }
        }

        const std::shared_ptr<State> m_state;
        const std::shared_ptr<Outcome> m_outcome;
    };

    const std::shared_ptr<State> m_state;
};

/// A service that keeps its requests until the test answers them, but for the paths:
///   /echo   one answer, the request's body, and the end
///   /drop   drops the handler
class CheckedService final : public IKesaApi {
public:
    CheckedService(Violations& violations, std::string name) : m_violations(violations), m_name(std::move(name)) {}

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        std::unique_lock lock(m_lock);
        expectProvided("a request");
        auto* const handle = reinterpret_cast<void*>(++m_lastHandle);
        lock.unlock();
        if (onRequest) {
            onRequest(request);
        }
        if (request.getPath() == "/echo") {
            handler->onNext(Response(200, request.getPayload()));
            handler->onCompleted();
        } else if (request.getPath() != "/drop") {
            lock.lock();
            m_kept.emplace(handle, std::move(handler));
            return handle;
        }
        handler.reset();
        return handle;
    }
    void cancel(void* handle) override
    {
        std::map<void*, std::shared_ptr<IResponseHandler<Response>>>::node_type node; // dies outside of the lock
        const std::lock_guard lock(m_lock);
        expectProvided("a cancel");
        node = m_kept.extract(handle);
        if (node.empty()) {
            m_violations.add("known-cancel", m_name);
        }
        ++m_cancels;
    }
    /// `unprovide` has returned.
    void withdrawn()
    {
        const std::lock_guard lock(m_lock);
        m_isWithdrawn = true;
    }
    /// The requests that are open, in order of arrival.
    std::vector<std::shared_ptr<IResponseHandler<Response>>> handlers() const
    {
        const std::lock_guard lock(m_lock);
        std::vector<std::shared_ptr<IResponseHandler<Response>>> all;
        for (const auto& [handle, kept] : m_kept) {
            all.push_back(kept);
        }
        return all;
    }
    /// Takes the oldest open request away; null when there is none.
    std::shared_ptr<IResponseHandler<Response>> take()
    {
        const std::lock_guard lock(m_lock);
        if (m_kept.empty()) {
            return nullptr;
        }
        auto handler = std::move(m_kept.begin()->second);
        m_kept.erase(m_kept.begin());
        return handler;
    }
    std::size_t open() const
    {
        const std::lock_guard lock(m_lock);
        return m_kept.size();
    }
    unsigned cancels() const
    {
        const std::lock_guard lock(m_lock);
        return m_cancels;
    }

    std::function<void(const Request&)> onRequest; ///< inside the call, before anything else

private:
    void expectProvided(const char* what)
    {
        if (m_isWithdrawn) {
            m_violations.add("after-unprovide", m_name + ": " + what);
        }
    }

    Violations& m_violations;
    const std::string m_name;
    mutable std::mutex m_lock;
    std::map<void*, std::shared_ptr<IResponseHandler<Response>>> m_kept;
    std::uintptr_t m_lastHandle = 0;
    unsigned m_cancels = 0;
    bool m_isWithdrawn = false;
};

} // namespace kesa::commadapter::test

#endif
