#ifndef KESA_COMMADAPTER_KESACLIENTAPI_H
#define KESA_COMMADAPTER_KESACLIENTAPI_H

#include <kesa/IKesaApi.h>

namespace kesa::commadapter {

/// The client object of a service, made by `IBackend::connect` and owned by who called that. It may outlive its
/// backend: every request then ends with 503.
class KESA_API KesaClientApi : public IKesaApi {
public:
    /// Begins to connect; from now on the listener hears of the connection. Once.
    virtual void startConnect() = 0;
};

} // namespace kesa::commadapter

#endif
