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
    std::function<void()> onValue;
    std::function<void()> onEnd;

    bool hasEnded() const noexcept { return status != 0 || isCompleted; }
};

class ClientChecker final : public IClientConnectionListener {
public:
    ClientChecker(Violations& violations, std::string name) : m_violations(violations), m_name(std::move(name)) {}

    void clientConnected() override
    {
        std::unique_lock lock(m_lock);
        expect(!m_isReleased, "after-release", "connected");
        expect(!m_isConnected, "alternation", "connected twice");
        for (const auto& outcome : m_open) {
            expect(outcome->hasEnded() || outcome->isCancelled, "ends-first", "a request is open across connections");
        }
        m_open.clear();
        m_isConnected = true;
        ++m_connections;
        lock.unlock();
        if (onConnected) {
            onConnected();
        }
    }
    void clientDisconnected() override
    {
        std::unique_lock lock(m_lock);
        expect(!m_isReleased, "after-release", "disconnected");
        expect(m_isConnected, "alternation", "disconnected without connected");
        m_isConnected = false;
        lock.unlock();
        if (onDisconnected) {
            onDisconnected();
        }
    }
    void clientError(unsigned short code, const std::string& message) override
    {
        m_violations.add("error-never", m_name + ": " + std::to_string(code) + " " + message);
    }

    /// A handler for the next request. Issue it at once.
    std::unique_ptr<IResponseHandler<Response>> handler(std::shared_ptr<Outcome>& outcome);
    /// `release` has returned.
    void released()
    {
        const std::lock_guard lock(m_lock);
        m_isReleased = true;
    }
    /// `cancel` of a request has returned.
    void cancelled(Outcome& outcome)
    {
        const std::lock_guard lock(m_lock);
        outcome.isCancelled = true;
    }

    bool isConnected() const
    {
        const std::lock_guard lock(m_lock);
        return m_isConnected;
    }
    unsigned connections() const
    {
        const std::lock_guard lock(m_lock);
        return m_connections;
    }
    template <class Read>
    auto read(const Read& what) const
    {
        const std::lock_guard lock(m_lock);
        return what();
    }

    std::function<void()> onConnected;
    std::function<void()> onDisconnected;

private:
    class Handler;

    void expect(bool holds, const char* rule, const char* what)
    {
        if (!holds) {
            m_violations.add(rule, m_name + ": " + what);
        }
    }

    Violations& m_violations;
    const std::string m_name;
    mutable std::mutex m_lock;
    bool m_isConnected = false;
    bool m_isReleased = false;
    unsigned m_connections = 0;
    std::vector<std::shared_ptr<Outcome>> m_open; ///< issued since the last `connected`
};

class ClientChecker::Handler final : public IResponseHandler<Response> {
public:
    Handler(ClientChecker& checker, std::shared_ptr<Outcome> outcome)
        : m_checker(checker), m_outcome(std::move(outcome))
    {}
    ~Handler() override
    {
        const std::lock_guard lock(m_checker.m_lock);
        m_outcome->isDestroyed = true;
    }
    Handler(const Handler&) = delete;
    Handler& operator=(const Handler&) = delete;

    bool onNext(const Response& value) override
    {
        std::unique_lock lock(m_checker.m_lock);
        expectOpen("a value");
        m_checker.expect(m_outcome->connection == m_checker.m_connections, "old-value", "a value");
        m_outcome->values.emplace_back(value.getPayload().text());
        lock.unlock();
        if (m_outcome->onValue) {
            m_outcome->onValue();
        }
        return false;
    }
    void onError(const Response& error) override
    {
        std::unique_lock lock(m_checker.m_lock);
        expectOpen("an error");
        m_outcome->status = error.getStatus();
        m_outcome->errorText = error.getErrorMessage();
        end(lock);
    }
    void onCompleted() override
    {
        std::unique_lock lock(m_checker.m_lock);
        expectOpen("completed");
        m_outcome->isCompleted = true;
        end(lock);
    }

private:
    void expectOpen(const char* what)
    {
        m_checker.expect(!m_outcome->hasEnded() && !m_outcome->isCancelled, "one-end", what);
    }
    void end(std::unique_lock<std::mutex>& lock)
    {
        lock.unlock();
        if (m_outcome->onEnd) {
            m_outcome->onEnd();
        }
    }

    ClientChecker& m_checker;
    const std::shared_ptr<Outcome> m_outcome;
};

inline std::unique_ptr<IResponseHandler<Response>> ClientChecker::handler(std::shared_ptr<Outcome>& outcome)
{
    outcome = std::make_shared<Outcome>();
    const std::lock_guard lock(m_lock);
    outcome->connection = m_connections;
    m_open.push_back(outcome);
    return std::make_unique<Handler>(*this, outcome);
}

/// A service that keeps its requests until the test answers them, but for the paths:
///   /echo   one answer, the request's body, and the end
///   /drop   drops the handler
class CheckedService final : public IKesaApi {
public:
    struct Kept {
        std::string path;
        std::shared_ptr<IResponseHandler<Response>> handler;
    };

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
            m_kept.emplace(handle, Kept{request.getPath(), std::move(handler)});
            ++m_requests;
            return handle;
        }
        handler.reset();
        return handle;
    }
    void cancel(void* handle) override
    {
        std::unique_lock lock(m_lock);
        expectProvided("a cancel");
        const auto node = m_kept.extract(handle);
        if (node.empty()) {
            m_violations.add("known-cancel", m_name);
        }
        ++m_cancels;
        lock.unlock();
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
            all.push_back(kept.handler);
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
        auto handler = std::move(m_kept.begin()->second.handler);
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
    unsigned requests() const
    {
        const std::lock_guard lock(m_lock);
        return m_requests;
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
    std::map<void*, Kept> m_kept;
    std::uintptr_t m_lastHandle = 0;
    unsigned m_requests = 0; ///< kept ones
    unsigned m_cancels = 0;
    bool m_isWithdrawn = false;
};

} // namespace kesa::commadapter::test

#endif
