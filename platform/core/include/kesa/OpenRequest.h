#ifndef KESA_OPENREQUEST_H
#define KESA_OPENREQUEST_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace kesa {

class OpenRequests;

/// One request that a service object has taken, between whoever answers it and whoever may end it. It passes answers on
/// to the client's handler until the first end, and keeps the promise of `IKesaApi::cancel`: once `withdraw` has
/// returned, no call to that handler runs or comes.
///
/// The last owner that lets go of a request without having ended it answers it 503. Any thread.
class KESA_API OpenRequest : public std::enable_shared_from_this<OpenRequest> {
public:
    OpenRequest(const OpenRequest&) = delete;
    OpenRequest& operator=(const OpenRequest&) = delete;
    ~OpenRequest();

    /// Not accepted (true) after the end.
    bool onNext(const Response& response);
    void onError(const Response& error);
    void onCompleted();
    bool isOpen() const;
    /// A handler whose calls are this request's.
    std::unique_ptr<IResponseHandler<Response>> makeHandler();

    /// Ends the request; its handler is destroyed without a call. Waits for a call that is running, unless this comes
    /// from inside it. False when it had ended.
    bool withdraw();
    /// The same, but tells the handler `error`.
    bool withdraw(const Response& error);

    /// What `IKesaApi::request` returns: counts up, never null.
    void* handle() const noexcept;

    /// What serves the request, for whoever forwards it: one of several parts, and its handle there.
    struct Work {
        std::size_t part = 0;
        void* handle = nullptr;
    };
    /// True, and `work` is not kept, when the request was withdrawn before its work was known: the caller cancels it.
    /// Never waits for the handler.
    [[nodiscard]] bool setWork(Work work);
    Work work() const;

    struct Table;
    /// By `OpenRequests` only.
    OpenRequest(std::shared_ptr<Table> table, std::uint64_t number,
                std::unique_ptr<IResponseHandler<Response>>&& handler) noexcept;

private:
    template <class Call>
    bool end(bool isWithdrawn, const Call& call);

    // Held during calls to the handler, so that `withdraw` waits for them; recursive, since a handler may withdraw.
    mutable std::recursive_mutex m_mutex;
    std::unique_ptr<IResponseHandler<Response>> m_handler;
    int m_calls = 0; ///< to the handler, under way
    bool m_hasEnded = false;
    // Of its own, taken inside the other: who forwards a request may hold what its handler waits for.
    mutable std::mutex m_workMutex;
    Work m_work;
    bool m_isWithdrawn = false;
    const std::shared_ptr<Table> m_table;
    const std::uint64_t m_number;
};

/// The open requests of one service object. Any thread.
class KESA_API OpenRequests {
public:
    OpenRequests();
    ~OpenRequests();
    OpenRequests(const OpenRequests&) = delete;
    OpenRequests& operator=(const OpenRequests&) = delete;

    /// Takes `handler`. After `close` it answers null, tells `handler` 503 and leaves it with the caller.
    std::shared_ptr<OpenRequest> open(std::unique_ptr<IResponseHandler<Response>>&& handler);
    /// Null when the handle is not that of an open request.
    std::shared_ptr<OpenRequest> find(void* handle) const;
    /// From now on requests are refused. Answers those that are open.
    std::vector<std::shared_ptr<OpenRequest>> close();

private:
    std::shared_ptr<OpenRequest::Table> m_table;
};

} // namespace kesa

#endif
