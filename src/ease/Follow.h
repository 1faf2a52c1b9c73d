#ifndef KESA_EASE_FOLLOW_H
#define KESA_EASE_FOLLOW_H

#include <kesa/IKesaApi.h>
#include <kesa/OpenRequest.h>

#include <memory>
#include <mutex>

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

/// One persistent stream that is asked for at each connection. Any thread; the client's handler is called without the
/// lock.
class Follow : public std::enable_shared_from_this<Follow> {
public:
    Follow(Request request, std::shared_ptr<OpenRequest> client);

    bool isOver() const { return !m_client->isOpen(); }
    /// There is a connection.
    void connected(const std::shared_ptr<IKesaApi>& api) { ask(api); }
    /// There is none any more: what comes of the last stream is passed over. The caller cancels what is returned.
    [[nodiscard]] Asked lost();
    /// No call to the client's handler runs or comes after this returns, unless it comes from inside one.
    void end();

private:
    class Handler;
    void ask(const std::shared_ptr<IKesaApi>& api);
    bool isCurrent(unsigned number) const;
    bool onNext(unsigned number, const Response& response);
    void onError(unsigned number, const Response& error);
    void onCompleted(unsigned number);

    const Request m_request;
    const std::shared_ptr<OpenRequest> m_client;
    mutable std::mutex m_mutex;
    Asked m_asked;         ///< under `m_mutex`
    unsigned m_number = 0; ///< of the stream; under `m_mutex`
    unsigned m_values = 0; ///< of the stream; under `m_mutex`
};

} // namespace kesa

#endif
