#ifndef KESA_COMMADAPTER_TESTS_STREAMCHECKERS_H
#define KESA_COMMADAPTER_TESTS_STREAMCHECKERS_H

// The contract of `IBackend`, checked from where its users stand. A `ClientChecker` listens for one client object and
// makes the handlers of its requests; a `CheckedService` stands where a service stands. What breaks a rule fails the
// test, by the name of the rule:
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
#include <kesa/headers.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kesa::commadapter::test {

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

class ClientChecker final : public IClientConnectionListener {
    /// With the lock held.
    template <class Read>
    auto read(const Read& what) const
    {
        const std::lock_guard lock(m_state->lock);
        return what();
    }

public:
    explicit ClientChecker(std::string name) : m_state(std::make_shared<State>(std::move(name))) {}

    void clientConnected() override { change(true); }
    void clientDisconnected() override { change(false); }
    void clientError(unsigned short code, const std::string& message) override
    {
        m_state->expect(false, "error-never", std::to_string(code) + " " + message);
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
        read([this] { return m_state->isReleased = true; });
    }
    /// `cancel` of a request has returned.
    void cancelled(Outcome& outcome)
    {
        read([&outcome] { return outcome.isCancelled = true; });
    }

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
};

/// A service that keeps its requests until the test answers them, but for the paths:
///   /echo   one answer, the request's body, and the end
///   /drop   drops the handler
class CheckedService final : public IKesaApi {
public:
    using Kept = std::shared_ptr<IResponseHandler<Response>>;

    explicit CheckedService(std::string name) : m_name(std::move(name)) {}

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        Kept mine(std::move(handler)); // dies outside of the lock
        std::unique_lock lock(m_lock);
        EXPECT_TRUE(!m_isWithdrawn) << "after-unprovide: " << m_name << ": a request";
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
        EXPECT_TRUE(!m_isWithdrawn) << "after-unprovide: " << m_name << ": a cancel";
        node = m_kept.extract(handle);
        EXPECT_FALSE(node.empty()) << "known-cancel: " << m_name;
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
    const std::string m_name;
    mutable std::mutex m_lock;
    std::map<void*, Kept> m_kept;
    std::uintptr_t m_lastHandle = 0;
    unsigned m_cancels = 0;
    bool m_isWithdrawn = false;
};

} // namespace kesa::commadapter::test

#endif
