#ifndef KESA_EASE_CLIENTIMPL_H
#define KESA_EASE_CLIENTIMPL_H

#include "Follow.h"
#include "ServedLoops.h"

#include <comm/Condition.h>
#include <fmt/format.h>
#include <kesa/OpenRequest.h>
#include <kesa/ease/Client.h>
#include <kesa/runtime/v02/IKesaRuntime.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kesa {

/// Connecting, requests and waiting have a file each.
///
/// Two locks, since the executor, the updater, I/O loops and the user's threads come here at once. `m_news` is held
/// while news are worked on and told, so whoever takes it waits for the handlers of `onChange`. Under `m_mutex` is what
/// `request` and `follow` need, and with that held nothing is asked that may wait for a handler: a stream's handler
/// runs under its stream's own lock and may call these two, while a handler of `onChange` disposes that very stream. So
/// `follow` never takes `m_news`.
class Client::Impl : public std::enable_shared_from_this<Impl> {
public:
    explicit Impl(std::string path) : m_path(std::move(path)), m_followName(m_path) {}

    void start(runtime::v02::IRuntimeRegistry* runtime);
    /// Nothing of this is touched after a handler has been called: it may drop the client.
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler);
    void cancel(void* handle);
    const std::string& path() const noexcept { return m_path; }
    bool isConnected() const;
    /// `hasAnswered`: the registry, which was asked for the path.
    std::string reason(std::optional<bool> hasAnswered = {}) const;
    void onChange(util::UniqueFunction<void(bool)> handler);
    Disposable follow(Request request, std::unique_ptr<IResponseHandler<Response>>&& handler);
    /// For a client of our own, whose streams the user does not know; before the first of them.
    void traceNoFollowing() { m_followName.clear(); }
    /// Where this process serves what this is connected to, if `on` has a part in it; else null.
    std::shared_ptr<const detail::OwnLoop> servedHere() const;
    /// Each caller waits for the handlers that are running, not only the first.
    void end();
    /// The error and its status; without one it is connected.
    void wait(std::chrono::nanoseconds timeout, ConnectResult& result);

private:
    static constexpr const char* ENDED = "the client has ended; kesa::use makes another";

    using Api = std::shared_ptr<IKesaApi>;
    using Handler = util::UniqueFunction<void(bool)>;
    using Handlers = std::vector<std::shared_ptr<Handler>>;
    using Follows = std::vector<std::shared_ptr<Follow>>;

    /// Of the connection, and who is to be told.
    struct Change {
        unsigned number = 0;
        Follows follows;
    };
    class Tracking;

    /// What changes the tables below goes through here: one at a time, and nothing after the end. What it leaves to be
    /// cancelled is cancelled without the lock.
    template <class Work>
    void onNews(const Work& work);
    void tracked(const ResourceUpdate<serviceregistry::ServiceDef>& update);
    void resolve(const serviceregistry::ServiceDef& record);
    void resolved(unsigned number, const std::optional<Api>& api);
    void refused(unsigned number, const Response& error);
    /// By the registry or the runtime, which says nothing of the path any more.
    void refusedForGood(const Response& error);
    /// Open requests have been told by then. What follows is told that nothing more comes.
    void runtimeEnded();
    void letGo();
    /// The client object is kept: it may be connected again before we hear of it.
    void lose(const std::string& reason);
    void setResolved(std::vector<url> locators);
    /// Connected to `api`, or not, with the reason. `refusal` is what requests are answered instead of 503 and that.
    Change setState(const Api& api, const std::string& reason, unsigned short status,
                    const std::optional<Response>& refusal = {});
    void tell(bool isConnected);
    /// The loop names it, not the handler of ours that it called.
    void call(Handler& handler, bool isConnected);

    /// Those that are over go when there are twice as many as were left the last time.
    void addFollow(const std::shared_ptr<Follow>& follow);
    void cancelWork(const OpenRequest& open);

    /// Ends the news, once none is being told; all but `left` and what is answered is destroyed without a lock.
    Follows takeAll(std::vector<Asked>& left);

    std::string nobody() const { return fmt::format("nobody is known to provide '{}'", m_path); }

    const std::string m_path;
    std::string m_followName;                            ///< in traces; empty: there are none
    runtime::v02::IRuntimeRegistry* m_runtime = nullptr; ///< used in its own calls only, so while it lives
    std::shared_ptr<const runtime::v02::IReasons> m_reasons;

    /// Held while the handlers of `onChange` are called, so that `end` waits for them; recursive, since they may end
    /// us.
    std::recursive_mutex m_news;
    bool m_isKnown = false;      ///< the registry knows the service; this and the following under `m_news`
    std::vector<url> m_locators; ///< those resolved; empty: none
    unsigned m_number = 0;       ///< of the resolving
    std::vector<Asked> m_left;   ///< to be cancelled
    Disposable m_tracking;
    Disposable m_resolving;
    Handlers m_handlers;
    bool m_hasEnded = false; ///< written under both locks, so either will do for reading

    mutable std::mutex m_mutex;
    comm::Condition m_changed;
    Api m_api;              ///< this and the following under `m_mutex`
    std::size_t m_apis = 0; ///< how many there have been: the part of a request's work
    bool m_isConnected = false;
    unsigned m_changes = 0;            ///< of that
    std::string m_reason = nobody();   ///< what `m_reasons` adds is asked for when it is wanted
    std::vector<url> m_resolved;       ///< `m_locators`, for that
    unsigned short m_status = 0;       ///< of an error that will not pass by itself
    std::optional<Response> m_refusal; ///< by the registry or the runtime
    Follows m_follows;
    std::size_t m_swept = 0; ///< so many are kept before those that are over go

    OpenRequests m_requests;
    OpenRequests m_following;
};

} // namespace kesa

#endif
