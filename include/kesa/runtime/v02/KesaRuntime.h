#ifndef KESA_RUNTIME_V02_KESARUNTIME_H
#define KESA_RUNTIME_V02_KESARUNTIME_H

#include <kesa/runtime/v02/IKesaRuntime.h>

#include <functional>
#include <string>

namespace kesa::runtime::v02 {

/// The one runtime of a process.
///
///     if (kesa::runtime::v02::KesaRuntime::initInstance("media")) { ... } // true: it has failed
///     auto* const runtime = kesa::runtime::v02::KesaRuntime::getInstance();
///     ...
///     kesa::runtime::v02::KesaRuntime::shutdown();
///
/// `initInstance` and `shutdown` must not run at the same time as anything else here, nor on a thread of the runtime,
/// that is, inside a handler. Misuse is a failed assertion that says what to do, and so is either of them while the
/// other one, or itself, runs in another thread; that nobody uses the instance any more when `shutdown` begins is for
/// the caller to see to.
class KESA_API KesaRuntime {
public:
    /// Creates the runtime and starts it. False: started. True: the configuration names no backend, or no process can
    /// have that name (`complaintAboutProcessName`); the instance is there all the same and has to be shut down.
    [[nodiscard]] static bool initInstance(const std::string& processName);
    /// The same, for a process that needs no configuration file: the text of a document that counts when there is no
    /// file at all. Of the text the backend reads nothing; it has its defaults then.
    [[nodiscard]] static bool initInstance(const std::string& processName, const std::string& fallbackDocument);
    /// Such a text: services are found through the `kesa-registryd` of this machine.
    static constexpr const char* WITH_REGISTRYD =
        R"({"use_registry": true, "service_registry_locators": {"*": ["ipc://kesa-registryd/registry"]},)"
        R"( "serializer-formats": {"*": ["application/json"]}})";
    static IKesaRuntime* getInstance();
    /// Calls `work` with the instance, which lives until `work` has returned: `shutdown` waits for that. False, and
    /// nothing is called, while there is none or it is ending. For who may run while the runtime ends; any thread.
    /// `work` must wait for nothing and not come back here.
    static bool withInstance(const std::function<void(IKesaRuntime&)>& work);
    /// Ends the runtime: no handler is called after it returns; those still kept are destroyed without a final call.
    /// `Disposable`s and client objects may be kept: disposing does nothing then, requests end with 503.
    static void shutdown();
    static bool isRunning();
    /// This process hosts the registry: one of the registry's locators is its own, and it has got its name. Known when
    /// `initInstance` has returned; false without an instance.
    static bool isRegistryHost();
};

} // namespace kesa::runtime::v02

#endif
