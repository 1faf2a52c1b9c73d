#ifndef KESA_EASE_FOLLOW_H
#define KESA_EASE_FOLLOW_H

#include <comm/Clock.h>
#include <comm/OncePer.h>
#include <kesa/IKesaApi.h>
#include <kesa/OpenRequest.h>
#include <kesa/ease/on.h>
#include <kesa/runtime/v02/IReasons.h>

#include <memory>
#include <mutex>
#include <string>

namespace kesa {

/// A request that was made, and where: to be cancelled. Cancelling waits for a handler that is running, so never with a
/// lock held that such a handler takes.
struct Asked {
    std::shared_ptr<IKesaApi> api;
    void* handle = IKesaApi::UNDEFINED_REQUEST_HANDLE;
    void cancel() const
    {
        if (api && handle != IKesaApi::UNDEFINED_REQUEST_HANDLE) {
            api->cancel(handle);
        }
    }
};

/// One persistent stream that is asked for at each connection, and again after a pause when it ends with 503 while
/// connected. Any thread; nothing is called with the lock held, so what only takes that waits for no handler.
class Follow : public std::enable_shared_from_this<Follow> {
public:
    /// `service` is its path, for traces; empty: there are none. `room` is that of the handler; null: it takes all.
    /// `reasons` hears when that is full; may be null.
    Follow(std::string service, Request request, std::shared_ptr<OpenRequest> client,
           std::shared_ptr<detail::LoopRoom> room, std::shared_ptr<const runtime::v02::IReasons> reasons);

    /// It needs nothing any more, though its last handler may still be running. Waits for no handler.
    bool isOver() const;
    /// There is a connection: the `connection`th change. Who tells of it may come late: changes before those that it
    /// has heard of are passed over.
    void connected(const std::shared_ptr<IKesaApi>& api, unsigned connection);
    /// There is none any more: what comes of the last stream is passed over. The caller cancels what is returned. Waits
    /// for no handler.
    [[nodiscard]] Asked lost(unsigned connection);
    /// No call to the client's handler runs or comes after this returns, unless it comes from inside one.
    void end();
    /// The same, but tells it `error`.
    void end(const Response& error);

private:
    class Handler;
    unsigned begin();
    void ask(const std::shared_ptr<IKesaApi>& api, unsigned number);
    void askLater(unsigned number, const Response& error);
    void askAgain(unsigned number, const std::string& why);
    void cut(unsigned number, bool isFirst);
    void letGo();
    void tellTooSlow(const std::string& loop) const;
    Asked finish();
    bool endsWith(unsigned number);
    bool onNext(unsigned number, const Response& response);
    void onError(unsigned number, const Response& error);
    void onCompleted(unsigned number);

    const std::string m_service;
    const Request m_request;
    const std::shared_ptr<OpenRequest> m_client;
    const std::shared_ptr<detail::LoopRoom> m_room;
    const std::shared_ptr<const runtime::v02::IReasons> m_reasons;

    mutable std::mutex m_mutex; ///< of all below
    Asked m_asked;              ///< its `api` is the connection's, also during a pause
    unsigned m_number = 0;      ///< of the stream, or of the pause; what has another one does not count any more
    unsigned m_connection = 0;  ///< the last change that was heard of
    comm::TimeNs m_since = 0;   ///< when the stream was asked for
    bool m_hasValue = false;    ///< it has brought one
    comm::TimeNs m_pause = 0;   ///< the last one on this connection
    comm::OncePer m_traces{comm::SECOND};
    bool m_isOver = false;
};

} // namespace kesa

#endif
