#ifndef KESA_IKESAAPI_H
#define KESA_IKESAAPI_H

#include <kesa/IResponseHandler.h>
#include <kesa/Request.h>
#include <kesa/Response.h>

#include <memory>

namespace kesa {

/// A service object of this process, or the client object of a service elsewhere.
///
/// As a client object: `request` and `cancel` from any thread. The handler is called on the backend's I/O loop,
/// never inside `request`; it must not block. Each request ends exactly once.
///
/// As a service object: called on the backend's I/O loop, one request at a time; it must not block, and must not wait
/// for anything the runtime's threads deliver. `kesa::on` moves a service to a loop of its own. The handler may be
/// kept and answered from any thread, one at a time; one destroyed without an end is told to the client as 503. An
/// exception out of `request` or `cancel` ends the process, on a loop of `kesa::on`, too; `ResourceHandler` catches
/// those of its functions.
class KESA_API IKesaApi {
public:
    /// There is no request. Cancelling it, or a request that has ended, does nothing.
    static constexpr void* UNDEFINED_REQUEST_HANDLE = nullptr;

    virtual ~IKesaApi();

    /// Sends a request; takes `handler`. One that cannot be sent ends like any other, on the loop: 503 while the
    /// service is not connected (before the first connection and after the client object's release, too), 413 when it
    /// is too large. When the backend has ended there is no loop: then `handler` is told 503 inside this call, stays
    /// the caller's, and `UNDEFINED_REQUEST_HANDLE` is returned.
    ///
    /// A request may have a time limit (`headers::appendTimeout`). A client object ends it with 504 when it has not
    /// been answered to the end by then, or, for a persistent stream or a single response, has brought no value; it is
    /// cancelled at the service, and nothing comes after the 504. What was answered while this process stood still,
    /// or was busy in handlers, counts: then the 504 comes up to a second later. A limit that is no whole number of
    /// milliseconds is answered 400. The service sees what it has left: `RequestContext::deadline`.
    virtual void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) = 0;

    /// Ends a request: no call to its handler runs or comes after this returns, unless it was called from inside
    /// that handler. The handler is destroyed without a final call.
    virtual void cancel(void* handle) = 0;
};

} // namespace kesa

#endif
