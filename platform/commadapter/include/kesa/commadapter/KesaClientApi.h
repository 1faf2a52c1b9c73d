#ifndef KESA_COMMADAPTER_KESACLIENTAPI_H
#define KESA_COMMADAPTER_KESACLIENTAPI_H

#include <kesa/IKesaApi.h>

#include <string>

namespace kesa::commadapter {

/// The client object of a service, made by `IBackend::connect` and owned by who called that. It may outlive its
/// backend: every request then ends with 503.
class KESA_API KesaClientApi : public IKesaApi {
public:
    /// Begins to connect; from now on the listener hears of the connection. Once.
    virtual void startConnect() = 0;
    /// What keeps it from bringing an answer at this moment, as far as this process sees: why it is not connected, in
    /// words that go on after "it is not connected: ", or that the process it is connected to is stopped. Empty when
    /// nothing is known to, and where a backend does not say. Any thread; it calls nobody.
    virtual std::string obstacle() const { return {}; }
};

} // namespace kesa::commadapter

#endif
