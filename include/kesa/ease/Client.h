#ifndef KESA_EASE_CLIENT_H
#define KESA_EASE_CLIENT_H

#include <kesa/Disposable.h>
#include <kesa/IKesaApi.h>
#include <util/UniqueFunction.h>

#include <chrono>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace kesa {

namespace runtime::v02 {
class IRuntimeRegistry;
}

class Client;
struct ConnectResult;

namespace detail {

std::shared_ptr<Client> registryClient(runtime::v02::IRuntimeRegistry* runtime);
std::string refusalToWaitFor(const IKesaApi& api);

template <class>
inline constexpr bool misused = false;

} // namespace detail

/// A client object that follows its service wherever it goes, and may be called always:
///
///     const std::shared_ptr<kesa::Client> player = kesa::use("/media/player");
///     player->whenConnected([] { std::puts("there"); });
///     auto titles = player->follow(kesa::Request("retrieve", "/title"), kesa::handler<kesa::Response>(...));
///     kesa::GetResult answer = kesa::get(*player, kesa::Request("retrieve", "/title"), std::chrono::seconds(2));
///
/// It connects when the path is registered, and stays connected while the provider lives, whether there is a registry
/// or not: requests and streams go on while only the registry is away. It lets go when the connection is lost and the
/// registry does not know the service either, and begins anew when the service is registered again, by whomever.
///
/// When the runtime ends, it tells its handlers so before `shutdown` returns, in that thread: `onChange` false, what
/// follows 503; `reason` says it, too. It does not come back to life with another runtime.
///
/// Threads: every operation from any. Nothing is called after `end` or the destructor has returned; both wait for a
/// handler that is running, unless they come from inside it. So two handlers that run at once must not each end what
/// the other belongs to. A handler may drop the client. One that is null is a failed assertion.
class KESA_API Client final : public IKesaApi {
public:
    /// By `use`. `runtime` may be null: then there is nothing to connect to, and `reason` says so.
    Client(runtime::v02::IRuntimeRegistry* runtime, const std::string& path);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    /// Ends.
    ~Client() override;

    /// As for every client object. While there is nothing to send to, `handler` is told 503 and the reason inside this
    /// call (400, when the path is none, or the resource, which begins with '/'), stays the caller's, and
    /// `UNDEFINED_REQUEST_HANDLE` is returned.
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) noexcept override;
    void cancel(void* handle) noexcept override;

    /// What it was made with.
    const std::string& path() const noexcept;
    bool isConnected() const;
    /// Why it is not connected, also by a handler that holds a loop of this process, or that the process it is
    /// connected to is stopped, in one sentence that ends with what to do or to ask next; empty when nothing is known
    /// to be in the way:
    ///     nobody is known to provide '/x': the registry at ipc://kesa-registryd/registry is not connected: no process
    ///     listens as "kesa-registryd" in "/run/kesa" (run directory by the default); kesactl doctor says more
    std::string reason() const;

    /// `handler(isConnected)` is called at each change: on the runtime's executor or updater, one call at a time; and
    /// with true inside this call, if it is connected now. It must not block. Waits for one that is running.
    void onChange(util::UniqueFunction<void(bool)> handler);
    template <class Function, std::enable_if_t<!std::is_invocable_v<Function&, bool>, int> = 0>
    void onChange(const Function&)
    {
        static_assert(detail::misused<Function>, "the function of kesa::Client::onChange takes (bool isConnected); the "
                                                 "one of whenConnected takes nothing");
    }
    /// `handler()` is called at each connection, in the same way.
    template <class Function>
    void whenConnected(Function handler)
    {
        if constexpr (std::is_invocable_v<Function&>) {
            onChange([handler = std::move(handler)](bool isConnected) mutable {
                if (isConnected) {
                    handler();
                }
            });
        } else {
            static_assert(detail::misused<Function>, "the function of kesa::Client::whenConnected takes nothing; the "
                                                     "one of onChange takes (bool isConnected)");
        }
    }

    /// Asks for a persistent stream now or at the next connection, and again after each reconnection: the values of all
    /// these streams go to `handler`, one at a time, on the I/O loop. What a service sends first comes again each time.
    ///
    /// A stream that ends with 503 is asked for again: at the next connection, or, while connected (it was cut as "too
    /// slow", also by `on`, or the service says so), after 10 ms. The pause doubles up to 1 s as long as the streams
    /// end without a value or within the pause before. Values may be missing then, so it is traced (3) on "KESA_EASE"
    /// with why, at most once in a second, and once only while streams bring none; `handler` sees only what the service
    /// sends first. Who has to know of each calls `request`. Every other end is passed to `handler`, and ends the
    /// following.
    ///
    /// Disposing ends it: nothing is called after that returns, and `handler` is destroyed without a call. Of a client
    /// that has ended, or whose path is none, `handler` is told the error inside this call; so it is, 400, of a
    /// resource that does not begin with '/'. An empty one is the service itself, as "/" is.
    Disposable follow(Request request, std::unique_ptr<IResponseHandler<Response>>&& handler);
    template <class Function, std::enable_if_t<std::is_invocable_v<Function&, const Response&>, int> = 0>
    Disposable follow(const Request&, const Function&)
    {
        static_assert(detail::misused<Function>, "kesa::Client::follow takes a response handler; write "
                                                 "kesa::handler<kesa::Response>(function)");
        return {};
    }

    /// Lets go. Open requests are answered 503 inside this call, all other handlers are destroyed without a call. Every
    /// request and `follow` from then on is answered 503; a handler given to `onChange` or `whenConnected` is
    /// destroyed, which is traced (3). Twice is harmless, and the second waits, too.
    void end();

private:
    friend class Connecting;
    friend std::shared_ptr<Client> detail::registryClient(runtime::v02::IRuntimeRegistry* runtime);
    friend std::string detail::refusalToWaitFor(const IKesaApi& api);
    class Impl;
    void wait(std::chrono::nanoseconds timeout, ConnectResult& result);
    std::string reasonWhenAsked(bool hasRegistryAnswered) const;
    void traceNoFollowing();
    std::shared_ptr<Impl> m_impl;
};

} // namespace kesa

#endif
