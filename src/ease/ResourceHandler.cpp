#include <kesa/ease/ResourceHandler.h>

#include "RouteTree.h"
#include "ServiceRules.h"

#include <kesa/ease/resources.h>
#include <obr/ErrorStorage.h>
#include <obr/visible.h>
#include <tracing/Channel.h>
#include <util/nearestName.h>

#include <fmt/format.h>

#include <algorithm>
#include <bitset>
#include <deque>
#include <exception>
#include <vector>

namespace kesa {

namespace {

constexpr std::string_view COMMANDS[] = {commands::RETRIEVE, commands::UPDATE, commands::DELETE, commands::INSERT};

using Place = RouteTree::Place;
using Commands = std::bitset<std::size(COMMANDS)>; ///< by id

static_assert(std::size(COMMANDS) == RouteTree::COMMANDS);

Commands commandsOf(const Place& place)
{
    Commands served;
    for (std::size_t id = 0; id < std::size(COMMANDS); ++id) {
        served[id] = place[id] != nullptr;
    }
    return served;
}

/// Of a place that serves something, as all do.
const Route& anyRouteOf(const Place& place)
{
    return (*std::find_if(place.begin(), place.end(), [](const auto& served) { return served != nullptr; }))->route;
}

void complain(const std::string& text)
{
    static const ::tracing::Channel channel("KESA_EASE");
    KESA_TRACE_TEXT(channel, 4, "[ResourceHandler] " + text);
}

void refuse(std::string_view command, std::string_view route, std::string_view fault)
{
    complain(fmt::format("route '{} {}' is refused: {}", command, route, fault));
}

/// Our service's bug, but no reason to end the process: whoever can send a bad input could end it at will.
void fail(const Request& request, OpenRequest& open, const char* what)
{
    complain(fmt::format("'{} {}' has thrown: {}", obr::glimpse(request.getCommand()), obr::glimpse(request.getPath()),
                         obr::glimpse(what)));
    open.onError(Response::createErrorResponse(500, what));
}

void refuse(const Request& request, OpenRequest& open, const RequestError& error)
{
    if (error.status() < 400) {
        fail(request, open, fmt::format("RequestError of status {}: {}", error.status(), error.what()).c_str());
        return;
    }
    open.onError(error.response());
}

/// Of a path that has functions for `commands` only.
Response noSuchCommand(const Request& request, Commands commands)
{
    std::string known;
    for (std::size_t id = 0; id < std::size(COMMANDS); ++id) {
        if (commands[id]) {
            known.append(known.empty() ? "'" : ", '").append(COMMANDS[id]).append("'");
        }
    }
    return Response::createErrorResponse(
        405, fmt::format("'{}' does not serve '{}'; it serves {}", request.getPath(), request.getCommand(), known));
}

/// What may have been meant by `path`; empty when nothing is near.
std::string nearestPath(const std::string& path, const RouteTree& routes)
{
    if (path.size() > util::LONGEST_NEAR_NAME) {
        return {};
    }
    std::vector<std::string> paths;
    for (const auto& [rank, place] : routes.places()) {
        paths.push_back(anyRouteOf(place).filledFrom(withoutOuterSlashes(path)));
    }
    const std::string_view nearest = util::nearestName(path, std::vector<std::string_view>(paths.begin(), paths.end()));
    auto place = routes.places().begin();
    for (std::size_t i = 0; !nearest.empty() && i < paths.size(); ++i, ++place) {
        if (nearest.data() == paths[i].data()) {
            const bool isTooShort = nearest.back() == '/'; // so it shows which parameter is missing
            return isTooShort ? anyRouteOf(place->second).text() : paths[i];
        }
    }
    return {};
}

Response noSuchResource(const Request& request, const RouteTree& routes)
{
    std::string text = fmt::format("no resource at '{}'", request.getPath());
    if (const std::string nearest = nearestPath(request.getPath(), routes); !nearest.empty()) {
        text += fmt::format("; did you mean '{}'?", nearest);
    }
    return Response::createErrorResponse(404, text);
}

} // namespace

class ResourceHandler::Impl {
    using Served = RouteTree::Served;

public:
    Impl()
    {
        const auto tell = [this](const Request&, const PathParameters&, const Responder& responder) {
            if (auto list = describe()) {
                responder.answer(std::move(*list));
            } else {
                responder.fail(500, obr::ErrorStorage::reason());
            }
        };
        add(commands::RETRIEVE, resources::PATH, tell, {});
    }

    ~Impl()
    {
        for (const auto& open : m_requests.close()) {
            open->withdraw(Response::createErrorResponse(503, "the service has ended"));
        }
    }

    void add(std::string_view command, std::string_view text, Function function, RouteInfo info)
    {
        const int id = commands::toId(command);
        Route route(text);
        if (id < 0) {
            refuse(command, text, "there is no such command");
            return;
        }
        if (const std::string_view fault = route.fault(); !fault.empty()) {
            refuse(command, text, fault);
            return;
        }
        std::unique_ptr<Served>& served = m_routes.placeOf(route)[static_cast<std::size_t>(id)];
        served = std::make_unique<Served>(Served{std::move(route), std::move(function), std::move(info)});
    }

    void allow(std::string_view rules, const std::string& place) { m_rules.allow(rules, place); }

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler)
    {
        if (ServiceRules::areAskedBy(request)) {
            return end(*handler, m_rules.explain(request));
        }
        if (const auto refusal = m_rules.refusal(request)) {
            return end(*handler, *refusal);
        }
        const std::string_view path = withoutOuterSlashes(request.getPath());
        const int id = commands::toId(request.getCommand());
        Served* served = nullptr;
        Commands others;
        m_routes.match(path, [&](const Place& place) {
            served = id >= 0 ? place[static_cast<std::size_t>(id)].get() : nullptr;
            if (served == nullptr) {
                others |= commandsOf(place);
            }
            return served != nullptr;
        });
        if (served != nullptr) {
            return serve(served->function, request, served->route.parametersOf(path), std::move(handler));
        }
        return end(*handler, others.none() ? noSuchResource(request, m_routes) : noSuchCommand(request, others));
    }

    void cancel(void* handle)
    {
        if (const auto open = m_requests.find(handle)) {
            open->withdraw();
        }
    }

private:
    static void* end(IResponseHandler<Response>& handler, const Response& response)
    {
        if (response.getStatus() >= 400) {
            handler.onError(response);
        } else {
            static_cast<void>(handler.onNext(response));
            handler.onCompleted();
        }
        return UNDEFINED_REQUEST_HANDLE;
    }

    void* serve(Function& function, const Request& request, const PathParameters& parameters,
                std::unique_ptr<IResponseHandler<Response>>&& handler)
    {
        auto open = m_requests.open(std::move(handler));
        if (!open) {
            return UNDEFINED_REQUEST_HANDLE;
        }
        try {
            function(request, parameters, Responder(open));
        } catch (const RequestError& error) {
            refuse(request, *open, error);
        } catch (const std::exception& exception) {
            fail(request, *open, exception.what());
        } catch (...) {
            fail(request, *open, "an exception that is no std::exception");
        }
        return open->handle();
    }

    optional<Payload> describe() const
    {
        std::deque<std::string> paths; // which the list refers to
        std::vector<resources::Resource> list;
        for (const auto& [rank, place] : m_routes.places()) {
            for (std::size_t id = 0; id < std::size(COMMANDS); ++id) {
                if (place[id] && place[id]->route.text() != resources::PATH) {
                    list.push_back({paths.emplace_back(place[id]->route.text()), COMMANDS[id], place[id]->info});
                }
            }
        }
        return resources::describe(std::move(list));
    }

    ServiceRules m_rules;
    RouteTree m_routes;
    OpenRequests m_requests;
};

ResourceHandler::ResourceHandler() : m_impl(std::make_unique<Impl>()) {}

ResourceHandler::~ResourceHandler() = default;

ResourceHandler& ResourceHandler::add(std::string_view command, std::string_view route, Function function,
                                      RouteInfo info)
{
    m_impl->add(command, route, std::move(function), std::move(info));
    return *this;
}

ResourceHandler& ResourceHandler::allow(std::string_view rules, const char* file, int line)
{
    const std::string_view path(file);
    m_impl->allow(rules, fmt::format("{}:{}", path.substr(path.rfind('/') + 1), line));
    return *this;
}

void* ResourceHandler::request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) noexcept
{
    return m_impl->request(request, std::move(handler));
}

void ResourceHandler::cancel(void* handle) noexcept
{
    m_impl->cancel(handle);
}

} // namespace kesa
