#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/resources.h>
#include <obr/ErrorStorage.h>
#include <tracing/Channel.h>
#include <util/nearestName.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <exception>
#include <vector>

namespace kesa {

namespace {

constexpr std::string_view COMMANDS[] = {commands::RETRIEVE, commands::UPDATE, commands::DELETE, commands::INSERT};

/// Takes the first segment off `path`, which has no leading '/'.
std::string_view takeSegment(std::string_view& path) noexcept
{
    const std::size_t slash = path.find('/');
    const std::string_view segment = path.substr(0, slash);
    path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    return segment;
}

std::string_view withoutOuterSlashes(std::string_view path) noexcept
{
    if (!path.empty() && path.front() == '/') {
        path.remove_prefix(1);
    }
    if (!path.empty() && path.back() == '/') {
        path.remove_suffix(1);
    }
    return path;
}

struct Segment {
    enum class Kind { eTEXT, ePARAMETER, eREST }; // the most particular first
    Kind kind;
    std::string text; ///< or the parameter's name

    bool operator==(const Segment& other) const
    {
        return kind == other.kind && (kind != Kind::eTEXT || text == other.text);
    }
};

using Commands = std::bitset<std::size(COMMANDS)>; ///< by id

/// One route with a function for each command it serves.
class Route {
public:
    explicit Route(std::string_view route)
    {
        for (std::string_view rest = withoutOuterSlashes(route); !rest.empty();) {
            const std::string_view segment = takeSegment(rest);
            if (segment == "**") {
                m_segments.push_back({Segment::Kind::eREST, "**"});
            } else if (segment.size() > 2 && segment.front() == '{' && segment.back() == '}') {
                m_segments.push_back({Segment::Kind::ePARAMETER, std::string(segment.substr(1, segment.size() - 2))});
            } else {
                m_segments.push_back({Segment::Kind::eTEXT, std::string(segment)});
            }
        }
    }

    /// Why this is no route; empty when it is one.
    std::string_view fault() const noexcept
    {
        for (const Segment& segment : m_segments) {
            if (segment.kind == Segment::Kind::eREST && &segment != &m_segments.back()) {
                return "'**' has to be the last segment";
            }
            if (segment.text.empty()) {
                return "it has an empty segment";
            }
            if (segment.text.find_first_of("{}") != std::string::npos) {
                return "a parameter is a whole segment, '{name}'";
            }
        }
        return {};
    }

    bool isSameAs(const Route& other) const { return m_segments == other.m_segments; }

    bool isMoreParticularThan(const Route& other) const
    {
        return std::lexicographical_compare(m_segments.begin(), m_segments.end(), other.m_segments.begin(),
                                            other.m_segments.end(),
                                            [](const Segment& a, const Segment& b) { return a.kind < b.kind; });
    }

    /// `path` is without outer '/'.
    bool matches(std::string_view path, PathParameters& parameters) const
    {
        parameters.clear();
        for (const Segment& segment : m_segments) {
            if (segment.kind == Segment::Kind::eREST) {
                parameters.add(segment.text, path);
                return true;
            }
            if (path.empty()) {
                return false;
            }
            const std::string_view here = takeSegment(path);
            if (segment.kind == Segment::Kind::ePARAMETER) {
                parameters.add(segment.text, here);
            } else if (here != segment.text) {
                return false;
            }
        }
        return path.empty();
    }

    /// As it was given, with one '/' at its beginning and none at its end.
    std::string text() const
    {
        std::string text;
        for (const Segment& segment : m_segments) {
            text += segment.kind == Segment::Kind::ePARAMETER ? "/{" + segment.text + "}" : "/" + segment.text;
        }
        return text.empty() ? "/" : text;
    }

    /// The path that this route would be for if only its texts had been mistaken: parameters are as in `path`, which is
    /// without outer '/'. Those that `path` is too short for are empty.
    std::string filledFrom(std::string_view path) const
    {
        std::string filled;
        for (const Segment& segment : m_segments) {
            if (segment.kind == Segment::Kind::eREST) {
                return filled.append("/").append(path);
            }
            const std::string_view here = takeSegment(path);
            filled.append("/").append(segment.kind == Segment::Kind::eTEXT ? segment.text : here);
        }
        return filled;
    }

    Commands commands() const
    {
        Commands served;
        for (std::size_t id = 0; id < std::size(COMMANDS); ++id) {
            served[id] = static_cast<bool>(functions[id]);
        }
        return served;
    }

    std::array<ResourceHandler::Function, std::size(COMMANDS)> functions; ///< by id of the command
    std::array<RouteInfo, std::size(COMMANDS)> infos;                     ///< likewise

private:
    std::vector<Segment> m_segments;
};

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
    complain(fmt::format("'{} {}' has thrown: {}", request.getCommand(), request.getPath(), what));
    open.onError(Response::createErrorResponse(500, what));
}

void refuse(const Request& request, OpenRequest& open, const RequestError& error)
{
    if (error.status() < 400) {
        fail(request, open, fmt::format("RequestError of status {}: {}", error.status(), error.what()).c_str());
        return;
    }
    open.onError(Response::createErrorResponse(error.status(), error.what()));
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
std::string nearestPath(const std::string& path, const std::vector<Route>& routes)
{
    if (path.size() > util::LONGEST_NEAR_NAME) {
        return {};
    }
    std::vector<std::string> paths;
    for (const Route& route : routes) {
        paths.push_back(route.filledFrom(withoutOuterSlashes(path)));
    }
    const std::string_view nearest = util::nearestName(path, std::vector<std::string_view>(paths.begin(), paths.end()));
    for (std::size_t i = 0; !nearest.empty() && i < routes.size(); ++i) {
        if (nearest.data() == paths[i].data()) {
            const bool isTooShort = nearest.back() == '/'; // so it shows which parameter is missing
            return isTooShort ? routes[i].text() : paths[i];
        }
    }
    return {};
}

Response noSuchResource(const Request& request, const std::vector<Route>& routes)
{
    std::string text = fmt::format("no resource at '{}'", request.getPath());
    if (const std::string nearest = nearestPath(request.getPath(), routes); !nearest.empty()) {
        text += fmt::format("; did you mean '{}'?", nearest);
    }
    return Response::createErrorResponse(404, text);
}

} // namespace

class ResourceHandler::Impl {
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
        // Before the first that is no more particular: so of equally particular ones the last added comes first.
        auto place = std::find_if(m_routes.begin(), m_routes.end(), [&](const Route& r) { return r.isSameAs(route); });
        if (place == m_routes.end()) {
            place = std::find_if(m_routes.begin(), m_routes.end(),
                                 [&](const Route& r) { return !r.isMoreParticularThan(route); });
            place = m_routes.insert(place, std::move(route));
        }
        place->functions[static_cast<std::size_t>(id)] = std::move(function);
        place->infos[static_cast<std::size_t>(id)] = std::move(info);
    }

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler)
    {
        PathParameters parameters;
        const std::string_view path = withoutOuterSlashes(request.getPath());
        const int id = commands::toId(request.getCommand());
        Commands others;
        for (Route& route : m_routes) {
            if (!route.matches(path, parameters)) {
                continue;
            }
            if (id >= 0 && route.functions[static_cast<std::size_t>(id)]) {
                return serve(route.functions[static_cast<std::size_t>(id)], request, parameters, std::move(handler));
            }
            others |= route.commands();
        }
        handler->onError(others.none() ? noSuchResource(request, m_routes) : noSuchCommand(request, others));
        return UNDEFINED_REQUEST_HANDLE;
    }

    void cancel(void* handle)
    {
        if (const auto open = m_requests.find(handle)) {
            open->withdraw();
        }
    }

private:
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
        std::vector<std::string> paths; // which the list refers to
        for (const Route& route : m_routes) {
            paths.push_back(route.text());
        }
        std::vector<resources::Resource> list;
        for (std::size_t i = 0; i < m_routes.size(); ++i) {
            for (std::size_t id = 0; id < std::size(COMMANDS); ++id) {
                if (m_routes[i].functions[id] && paths[i] != resources::PATH) {
                    list.push_back({paths[i], COMMANDS[id], m_routes[i].infos[id]});
                }
            }
        }
        return resources::describe(std::move(list));
    }

    std::vector<Route> m_routes; ///< the most particular first
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

void* ResourceHandler::request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) noexcept
{
    return m_impl->request(request, std::move(handler));
}

void ResourceHandler::cancel(void* handle) noexcept
{
    m_impl->cancel(handle);
}

} // namespace kesa
