#ifndef KESA_EASE_RESOURCEHANDLER_H
#define KESA_EASE_RESOURCEHANDLER_H

#include <kesa/IKesaApi.h>
#include <kesa/commands.h>
#include <kesa/ease/RequestError.h>
#include <kesa/ease/RouteInfo.h>
#include <kesa/ease/body.h>
#include <kesa/ease/routeFunction.h>

#include <memory>
#include <string_view>
#include <utility>

namespace kesa {

/// A service object made of functions, each for one command on one route:
///
///     auto service = std::make_shared<kesa::ResourceHandler>();
///     service->onRetrieve("/load", [](const Request&) { return 0.7; });
///     service->onRetrieve("/net/{interface}", [](const Request&, const PathParameters& path) -> GenericObject {
///         return countersOf(path["interface"]);
///     });
///     service->onUpdate("/volume", [](const Request& request) { mixer.set(kesa::body<int>(request)); });
///     service->onRetrieve("/song", [](const Request&, Responder responder) { waiting.push_back(responder); });
///
/// What a function returns is the answer: a `Payload`; a `Response`, an error when its status is 400 or above; any
/// value that PayloadConversion.h can write, in the format that the request accepts, else JSON (so a text is a JSON
/// string; for plain text return `asText`); or nothing, for an end without an answer. A `bool` is such a value, and
/// says nothing of success. A function that answers later, or more than once, takes a `Responder` instead and returns
/// nothing.
///
/// `throw kesa::RequestError(409, "...")` ends the request with that status and text; a `Response` instead of the two
/// may have headers and a body.
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
/// Other users may ask everything, until a line says who may what:
///
///     service->allow(R"({"may": "retrieve"})");
///     service->allow(R"({"user": "media", "may": ["update", "insert"], "resources": ["/volume", "/titles/**"]})");
///
/// Threads: routes and rules are added before the service is registered. The functions are called as `IKesaApi` says,
/// one request at a time; the `Responder` may be kept and used from any thread. What is open when the object dies is
/// answered 503.
///
/// Any other exception out of a function is traced (4) on "KESA_EASE" and ends its request with 500 and the exception's
/// text. Neither tells anything when the request has ended already; a `Responder` that was kept is without effect then.
class KESA_API ResourceHandler : public IKesaApi {
public:
    using Function = RouteFunction;

    ResourceHandler();
    ~ResourceHandler() override;

    template <class F>
    ResourceHandler& onRetrieve(std::string_view route, F function, const RouteInfo& info = {})
    {
        return add(commands::RETRIEVE, route, detail::routeFunction(std::move(function)), info);
    }
    template <class F>
    ResourceHandler& onUpdate(std::string_view route, F function, const RouteInfo& info = {})
    {
        return add(commands::UPDATE, route, detail::routeFunction(std::move(function)), info);
    }
    template <class F>
    ResourceHandler& onDelete(std::string_view route, F function, const RouteInfo& info = {})
    {
        return add(commands::DELETE, route, detail::routeFunction(std::move(function)), info);
    }
    template <class F>
    ResourceHandler& onInsert(std::string_view route, F function, const RouteInfo& info = {})
    {
        return add(commands::INSERT, route, detail::routeFunction(std::move(function)), info);
    }

    /// What the operations above do: replaces the function for `command` on `route`. A malformed route is refused with
    /// a trace (4) on "KESA_EASE" that says why.
    ResourceHandler& add(std::string_view command, std::string_view route, Function function, RouteInfo info = {});

    /// From now on others may only what a rule lets them; root, the process's own user and the process itself may
    /// everything. `rules` is one or a list of them, as JSON, in the form that docs/security.md has for the document of
    /// the process, without "paths" and "process"; what that document says counts, too. Further calls add to them. Who
    /// may not is answered 403, with the rules that there are and `file` and `line` of their calls in
    /// `headers::REASON`; once for a process that is traced (3) on "KESA_EASE". A rule that is none closes the service
    /// to other users, with a trace (4) that says why. `kesactl may WHO call PATH` asks a service that runs.
    ResourceHandler& allow(std::string_view rules, const char* file = __builtin_FILE(), int line = __builtin_LINE());

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) noexcept override;
    void cancel(void* handle) noexcept override;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace kesa

#endif
