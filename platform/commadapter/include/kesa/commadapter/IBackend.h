#ifndef KESA_COMMADAPTER_IBACKEND_H
#define KESA_COMMADAPTER_IBACKEND_H

#include <kesa/IClientConnectionListener.h>
#include <kesa/IKesaApi.h>
#include <kesa/commadapter/KesaClientApi.h>
#include <kesa/url.h>

#include <memory>
#include <string>
#include <vector>

namespace comm {
class LoopHold;
} // namespace comm

namespace kesa::commadapter {

/// One way for processes to reach each other. `bool` results of `provideOnPath` and `provideOnLocator` are true on
/// failure. Operations come from one thread, the runtime's executor, which must not be the backend's own loop.
///
/// Per client object connected and disconnected strictly alternate; no value of an old connection comes after its
/// disconnected; the 503s that end its streams, and those of requests issued while it is not connected, all come before
/// the next connected. So who issues at each connected what is to last loses nothing: while the connection lives, a
/// persistent stream ends with 503 only when the service drops it, when a value is refused by its queue policy, or when
/// 65536 requests are open. 404 is a service's own word, never the backend's.
///
/// Who hears of it on another thread may issue a request after the connection was lost and is there again, before
/// having heard of either: it goes over the new connection, and lives. So whoever issues at connected cancels at
/// disconnected what it issued before, at the client object it had; nothing happens to requests that have ended.
class KESA_API IBackend {
public:
    virtual ~IBackend();
    virtual void start() = 0;
    /// Ends all there is; no listener, handler or service is called after it returns. Client objects live on.
    virtual void stop() = 0;
    /// By scheme and realm, never by what can be reached at the moment.
    virtual bool canHandle(const url& locator) = 0;
    /// Offers `service` under a locator of the backend's choosing. `service` stays the caller's and alive until
    /// `unprovide` of that locator has returned. A locator that is provided already is refused. The reason of a failure
    /// is in `obr::ErrorStorage`; the same for the next one.
    virtual bool provideOnPath(const std::string& path, IKesaApi* service, url& locator) = 0;
    virtual bool provideOnLocator(const url& locator, IKesaApi* service) = 0;
    /// No call into the service runs or comes after it returns; its open requests were cancelled and its clients are
    /// told. Locators that are not provided here are ignored.
    virtual void unprovide(const url& locator) = 0;
    /// A new client object, owned by the caller, whose connection `listener` hears of from `startConnect` on; null,
    /// and `listener` is never called, when the locator is malformed or not this backend's.
    virtual KesaClientApi* connect(const url& locator, IClientConnectionListener* listener) = 0;
    /// No call to the listener runs or comes after it returns; open requests end with 503. The object stays the
    /// caller's. `serviceRemoved`: the service is known to be gone, so its connection need not linger.
    virtual void release(IKesaApi* client, bool serviceRemoved) = 0;
    /// The locator addresses this very process through this backend.
    virtual bool isLocal(const url& locator) = 0;
    /// What this process is and whom it talks to, as JSON: docs/protocol.md, "What a process says of itself". Waits for
    /// the I/O loop; empty before `start` and after `stop`, and where a backend does not say.
    virtual std::string describe() { return {}; }
    /// What holds its own loop, for any thread; may be kept longer. Null before `start` and after `stop`, and where a
    /// backend does not say.
    virtual std::shared_ptr<const comm::LoopHold> hold() const { return nullptr; }
    /// What holds the loops of who uses it, to be told by `describe` and to whoever asks this process what it is. After
    /// `start`.
    virtual void describeHolds(const std::vector<std::shared_ptr<const comm::LoopHold>>& /*holds*/) {}
    /// All others rely on finding this process: what they find it by is put back soon when somebody removes it, for
    /// resources of which there are few. Else that is noticed when a connection ends. Once something is provided.
    virtual void stayFindable() {}
};

} // namespace kesa::commadapter

#endif
