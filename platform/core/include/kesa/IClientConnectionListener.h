#ifndef KESA_ICLIENTCONNECTIONLISTENER_H
#define KESA_ICLIENTCONNECTIONLISTENER_H

#include <obr/api.h>

#include <string>

namespace kesa {

/// Hears of the connection of one client object. Calls come on the backend's threads, one at a time; connected and
/// disconnected alternate, beginning with connected. An exception ends the process.
class KESA_API IClientConnectionListener {
public:
    virtual ~IClientConnectionListener();
    virtual void clientConnected() = 0;
    virtual void clientDisconnected() = 0;
    virtual void clientError(unsigned short code, const std::string& message) = 0;
};

} // namespace kesa

#endif
