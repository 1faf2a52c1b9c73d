#ifndef KESA_EASE_ROUTEFUNCTION_H
#define KESA_EASE_ROUTEFUNCTION_H

#include <kesa/Request.h>
#include <kesa/ease/PathParameters.h>
#include <kesa/ease/Responder.h>
#include <kesa/ease/body.h>
#include <kesa/servicecomp.h>
#include <util/UniqueFunction.h>

#include <type_traits>
#include <utility>

namespace kesa {

/// What `ResourceHandler` calls for a route, whatever form the function had that was given to it.
using RouteFunction = util::UniqueFunction<void(const Request&, const PathParameters&, Responder)>;

namespace detail {

enum class RouteForm { eUNKNOWN, eANSWERS, eANSWERS_WITH_PATH, eRESPONDS, eRESPONDS_WITH_PATH };

/// One after the other, since the question alone instantiates a generic function.
template <class F>
constexpr RouteForm routeForm()
{
    if constexpr (std::is_invocable_v<F&, const Request&, const PathParameters&, Responder>) {
        return RouteForm::eRESPONDS_WITH_PATH;
    } else if constexpr (std::is_invocable_v<F&, const Request&, Responder>) {
        return RouteForm::eRESPONDS;
    } else if constexpr (std::is_invocable_v<F&, const Request&, const PathParameters&>) {
        return RouteForm::eANSWERS_WITH_PATH;
    } else if constexpr (std::is_invocable_v<F&, const Request&>) {
        return RouteForm::eANSWERS;
    } else {
        return RouteForm::eUNKNOWN;
    }
}

template <class T>
constexpr bool isAnswer()
{
    using Value = std::decay_t<T>;
    return std::is_void_v<T> || std::is_same_v<Value, Payload> || std::is_same_v<Value, Response> ||
           std::is_convertible_v<T, std::string_view> || serializer::CAN_WRITE<Value>;
}

/// Calls `function`, and answers the request with what that returns.
template <class F, class... Path>
void answerBy(F& function, const Request& request, const Responder& responder, const Path&... path)
{
    using Result = std::invoke_result_t<F&, const Request&, const Path&...>;
    constexpr bool IS_ANSWER = isAnswer<Result>();
    static_assert(IS_ANSWER, "a route's function returns nothing, a kesa::Payload, a kesa::Response, or a value that "
                             "kesa/core/PayloadConversion.h can write");
    if constexpr (std::is_void_v<Result>) {
        function(request, path...);
        responder.complete();
    } else if constexpr (std::is_same_v<std::decay_t<Result>, Payload> ||
                         std::is_same_v<std::decay_t<Result>, Response>) {
        responder.answer(function(request, path...));
    } else if constexpr (IS_ANSWER) {
        responder.answer(asPayload(function(request, path...), servicecomp::mimeTypeFor(request)));
    }
}

template <class Result>
constexpr void requireNothing()
{
    static_assert(std::is_void_v<Result>,
                  "a route's function that takes a kesa::Responder answers through it alone, and "
                  "returns nothing");
}

template <class F>
RouteFunction routeFunction(F function)
{
    constexpr RouteForm FORM = routeForm<F>();
    static_assert(
        FORM != RouteForm::eUNKNOWN,
        "a route's function takes (const kesa::Request&), and const kesa::PathParameters& when it wants them, "
        "and returns the answer; or it takes a kesa::Responder as the last one and returns nothing");
    if constexpr (FORM == RouteForm::eRESPONDS_WITH_PATH) {
        requireNothing<std::invoke_result_t<F&, const Request&, const PathParameters&, Responder>>();
        return RouteFunction(std::move(function));
    } else if constexpr (FORM == RouteForm::eRESPONDS) {
        requireNothing<std::invoke_result_t<F&, const Request&, Responder>>();
        return RouteFunction(
            [function = std::move(function)](const Request& request, const PathParameters&,
                                             Responder responder) mutable { function(request, std::move(responder)); });
    } else if constexpr (FORM == RouteForm::eANSWERS_WITH_PATH) {
        return RouteFunction([function = std::move(function)](const Request& request, const PathParameters& path,
                                                              const Responder& responder) mutable {
            answerBy(function, request, responder, path);
        });
    } else if constexpr (FORM == RouteForm::eANSWERS) {
        return RouteFunction([function = std::move(function)](const Request& request, const PathParameters&,
                                                              const Responder& responder) mutable {
            answerBy(function, request, responder);
        });
    } else {
        return RouteFunction();
    }
}

} // namespace detail

} // namespace kesa

#endif
