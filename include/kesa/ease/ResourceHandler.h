#ifndef KESA_EASE_RESOURCEHANDLER_H
#define KESA_EASE_RESOURCEHANDLER_H

#include <kesa/IKesaApi.h>
#include <kesa/commands.h>
#include <kesa/ease/PathParameters.h>
#include <kesa/ease/Responder.h>
#include <kesa/ease/RouteInfo.h>
#include <util/UniqueFunction.h>

#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace kesa {

/// A service object made of functions, each for one command on one route:
///
///     auto service = std::make_shared<kesa::ResourceHandler>();
///     service->onRetrieve("/cpu", [](const Request&, Responder responder) { responder.answer(cpuAsJson()); });
///     service->onRetrieve("/net/{interface}", [](const Request&, const PathParameters& parameters, Responder
///     responder) {
///         responder.answer(countersOf(parameters["interface"]));
///     });
///
/// A route is a path whose segments may be parameters, "{name}", for one segment each; "**" as the last one stands for
/// all further segments, also none, and is a parameter of that name. The most particular route wins: segment by
/// segment, text goes before a parameter and that before "**". No route: 404 with a text that names the nearest. None
/// for the command: 405 with one that names the commands there are.
///
/// It says by itself which routes it has (resources.h), unless a route of the same text says otherwise. What is said of
/// a route stands at its end:
///
///     service->onRetrieve("/cpu", answerCpu, kesa::about("load of all cores").answer(R"({"type":"number"})"));
///
/// Threads: routes are added before the service is registered. The functions are called as `IKesaApi` says, one
/// request at a time; the `Responder` may be kept and used from any thread. What is open when the object dies is
/// answered 503.
///
/// An exception out of a function is traced (4) on "KESA_EASE" and ends its request with 500 and the exception's text,
/// unless the request has ended already; a `Responder` that was kept is without effect then.
class KESA_API ResourceHandler : public IKesaApi {
public:
    using Function = util::UniqueFunction<void(const Request&, const PathParameters&, Responder)>;

    ResourceHandler();
    ~ResourceHandler() override;

    template <class F>
    ResourceHandler& onRetrieve(std::string_view route, F function, const RouteInfo& info = {})
    {
        return add(commands::RETRIEVE, route, adapt(std::move(function)), info);
    }
    template <class F>
    ResourceHandler& onUpdate(std::string_view route, F function, const RouteInfo& info = {})
    {
        return add(commands::UPDATE, route, adapt(std::move(function)), info);
    }
    template <class F>
    ResourceHandler& onDelete(std::string_view route, F function, const RouteInfo& info = {})
    {
        return add(commands::DELETE, route, adapt(std::move(function)), info);
    }
    template <class F>
    ResourceHandler& onInsert(std::string_view route, F function, const RouteInfo& info = {})
    {
        return add(commands::INSERT, route, adapt(std::move(function)), info);
    }

    /// What the operations above do: replaces the function for `command` on `route`. A malformed route is refused with
    /// a trace (4) on "KESA_EASE" that says why.
    ResourceHandler& add(std::string_view command, std::string_view route, Function function, RouteInfo info = {});

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) noexcept override;
    void cancel(void* handle) noexcept override;

private:
    template <class F>
    static Function adapt(F function)
    {
        constexpr bool TAKES_PARAMETERS = std::is_invocable_v<F&, const Request&, const PathParameters&, Responder>;
        constexpr bool TAKES_NONE = std::is_invocable_v<F&, const Request&, Responder>;
        static_assert(TAKES_PARAMETERS || TAKES_NONE,
                      "a route's function takes (const kesa::Request&, kesa::Responder), "
                      "or (const kesa::Request&, const kesa::PathParameters&, kesa::Responder)");
        if constexpr (TAKES_PARAMETERS) {
            return Function(std::move(function));
        } else if constexpr (TAKES_NONE) {
            return Function([function = std::move(function)](const Request& request, const PathParameters&,
                                                             Responder responder) mutable {
                function(request, std::move(responder));
            });
        } else {
            return Function();
        }
    }

    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace kesa

#endif
