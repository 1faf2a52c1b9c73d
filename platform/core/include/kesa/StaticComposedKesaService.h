#ifndef KESA_STATICCOMPOSEDKESASERVICE_H
#define KESA_STATICCOMPOSEDKESASERVICE_H

#include <kesa/IKesaApi.h>
#include <kesa/IResourceHandler.h>

#include <map>
#include <memory>
#include <string>

namespace kesa {

/// A service made of resource handlers, each under a root path. The longest root that is a prefix of the request's
/// path, by segments, gets the request; none: 404.
class KESA_API StaticComposedKesaService : public IKesaApi {
public:
    explicit StaticComposedKesaService(std::map<std::string, std::unique_ptr<IResourceHandler>> handlers);
    ~StaticComposedKesaService() override;

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override;
    void cancel(void* handle) override;
    /// Cancels every open request at its handler and answers it 503; so is every request from then on. A stream is
    /// never completed by this.
    virtual void endOutstandingRequests();

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace kesa

#endif
