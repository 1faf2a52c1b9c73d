#ifndef KESA_EASE_PROVIDE_H
#define KESA_EASE_PROVIDE_H

#include <kesa/GenericObject.h>
#include <kesa/IKesaApi.h>
#include <kesa/Response.h>
#include <util/UniqueFunction.h>

#include <memory>
#include <string>

namespace kesa {

namespace runtime::v02 {
class IRuntimeRegistry;
}

/// A service of this process, provided as long as the object lives:
///
///     const auto lamp = kesa::provide("/lamps/desk", service, {{"room", "hall"}});
///     lamp->whenKnown([] { std::puts("others find it now"); });
///
/// Provided is not yet known: who has the service's locator reaches it at once, everybody else finds it once the
/// registry knows it, which may come later than this process, and come back. Only the registry can tell, so `whenKnown`
/// asks it. Other users find it only with `PUBLIC` (`MetainfoKeys.h`) in its metainfo, or as the registry's policy
/// says.
///
/// Threads: every operation from any. Nothing is called after `end` or the destructor has returned; both wait for a
/// handler that is running, unless they come from inside it. So two handlers that run at once must not both end it. The
/// service object may be called until the runtime has let go of it. After the end of a runtime that was named only
/// these two may be called.
class KESA_API Registration {
public:
    using OnRefused = util::UniqueFunction<void(const Response&)>;

    /// By `provide`. `runtime` may be null: that of this process.
    Registration(runtime::v02::IRuntimeRegistry* runtime, const std::string& path, std::shared_ptr<IKesaApi> service,
                 const GenericObject& metainfo, OnRefused onRefused);
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    /// Ends.
    ~Registration();

    /// `handler()` is called whenever the registry has told this process that it knows the service: who asks for it
    /// from then on finds it, and who follows the path has been told. It is called again when the registry was away and
    /// is back; never where there is no registry, or when the service is refused, or after `end`, which is traced (3).
    /// On the I/O loop: it must not block, and may drop this object, also while `whenKnown` runs in another thread. One
    /// that is null is a failed assertion.
    void whenKnown(util::UniqueFunction<void()> handler);

    /// Withdraws the service. Twice is harmless. From then on the path may be provided again; while it is provided, a
    /// second one is refused (409), so `lamp = kesa::provide("/lamps/desk", ...)` needs `lamp.reset()` before.
    void end();

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};

/// Registers `service` at `path` with the runtime of this process, as a `pex`. "versions" in `metainfo` are those of
/// its interface: a text or a list of texts, anything else counts as none, which is traced (3).
///
/// `onRefused` hears why it is not provided, also long after `provide`, when the registry refuses it: 409, the path is
/// another's; 400, it is no path, or `service` is null. On the updater, once; it must not block. Without one it is
/// traced (3) on "KESA_EASE". `kesa::reasonOf` says the whole of it, also who has the path. 503, this process has no
/// runtime, is told inside this call.
[[nodiscard]] KESA_API std::unique_ptr<Registration> provide(const std::string& path, std::shared_ptr<IKesaApi> service,
                                                             const GenericObject& metainfo = {},
                                                             Registration::OnRefused onRefused = {});
/// The same with `runtime`.
[[nodiscard]] KESA_API std::unique_ptr<Registration> provide(runtime::v02::IRuntimeRegistry& runtime,
                                                             const std::string& path, std::shared_ptr<IKesaApi> service,
                                                             const GenericObject& metainfo = {},
                                                             Registration::OnRefused onRefused = {});

} // namespace kesa

#endif
