#ifndef KESA_IRESOURCEHANDLER_H
#define KESA_IRESOURCEHANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Request.h>
#include <kesa/Response.h>

#include <memory>
#include <string>

namespace kesa {

/// Serves the resources under one root path of a composed service. Threads: as a service object (`IKesaApi`).
class KESA_API IResourceHandler {
public:
    virtual ~IResourceHandler();
    /// `dispatch` is the root under which the handler was found. The handle must not be one that is in use.
    virtual void* actionRequest(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler,
                                const std::string& dispatch) = 0;
    virtual void cancelRequest(void* handle) = 0;
};

} // namespace kesa

#endif
