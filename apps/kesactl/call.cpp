#include "Answers.h"
#include "Failure.h"
#include "System.h"
#include "commands.h"
#include "options.h"
#include "output.h"
#include "print_services.h"

#include <CLI/CLI.hpp>
#include <kesa/ease/handler.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/responsesemantics.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <obr/ErrorStorage.h>
#include <util/config/JSONParser.h>

#include <fmt/format.h>

#include <iostream>
#include <iterator>

namespace kesactl {
namespace {

using kesa::runtime::v02::KesaRuntime;
using Client = std::shared_ptr<kesa::IKesaApi>;

struct Arguments {
    std::string path;
    std::string resource = "/";
    std::string command = "retrieve";
    std::string body;
    bool isFollowing = false;
    CommonOptions common;
};

/// The body as it was given, on stdin for "-", once it is known to be JSON.
kesa::Payload readBody(const std::string& given)
{
    if (given.empty()) {
        return {};
    }
    std::string text = given == "-" ? std::string(std::istreambuf_iterator<char>(std::cin), {}) : given;
    util::config::Value value;
    if (util::config::JSONParser().parseString(text, value)) {
        const std::string reason = obr::ErrorStorage::reason();
        obr::ErrorStorage::ack();
        throw Failure{ExitCode::eUSAGE, "the body is no JSON: " + reason};
    }
    return kesa::Payload::createFromString(std::move(text), kesa::mimetypes::JSON);
}

ServiceDef find(const System& system, const Arguments& arguments, comm::TimeNs deadline)
{
    const Services services = system.view(literal(arguments.path))->list(deadline);
    if (services.empty()) {
        throw Failure{ExitCode::eFAILED,
                      fmt::format("no service at {}; kesactl list shows what is there. The path of a "
                                  "resource is an argument of its own: kesactl call {} /resource",
                                  arguments.path, arguments.path)};
    }
    return services.begin()->second;
}

/// The connection to a service.
class Connection {
public:
    explicit Connection(const ServiceDef& service) : m_service(service)
    {
        using Resolved = kesa::optional<Client>;
        m_subscription = KesaRuntime::getInstance()->resolveService(
            service, kesa::handler<Resolved>([state = m_state](const Resolved& client) { state->keep(client, false); },
                                             [state = m_state](const kesa::Response&) { state->keep({}, true); }));
    }
    ~Connection() { m_subscription.dispose(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    Client client(comm::TimeNs deadline)
    {
        std::unique_lock lock(m_state->mutex);
        comm::waitFor(
            m_state->changed, lock, [this] { return m_state->client || m_state->isRefused; }, deadline);
        const std::string& where =
            m_service.locators.empty() ? m_service.path.toString() : m_service.locators.front().toString();
        if (m_state->isRefused) {
            throw Failure{ExitCode::eFAILED,
                          fmt::format("{} cannot be reached from here: it is in another run directory or on another "
                                      "host, and offers no other locator",
                                      where)};
        }
        if (!m_state->client) {
            throw Failure{ExitCode::eTIMED_OUT,
                          fmt::format("no connection to {}: its process is stopped, busy, or refuses this user; try a "
                                      "longer --timeout",
                                      where)};
        }
        return *m_state->client;
    }

private:
    struct State {
        void keep(const kesa::optional<Client>& newClient, bool isRefusal)
        {
            const std::lock_guard lock(mutex);
            client = newClient;
            isRefused = isRefusal;
            changed.notifyAll();
        }
        std::mutex mutex;
        comm::Condition changed;
        kesa::optional<Client> client; ///< with the mutex held, as the next one
        bool isRefused = false;
    };

    const ServiceDef m_service;
    const std::shared_ptr<State> m_state = std::make_shared<State>();
    kesa::Disposable m_subscription;
};

std::string asJsonText(std::string_view text)
{
    const std::string list = util::config::Value(util::config::Value::Array{util::config::Value(text)}).toText();
    return list.substr(1, list.size() - 2);
}

/// The payload as it came; as JSON, an object with its format, and texts of other formats as strings.
std::string lineOf(const kesa::Response& response, bool isJson)
{
    const kesa::Payload& payload = response.getPayload();
    if (!isJson) {
        return std::string(payload.text()) + '\n';
    }
    const std::string_view format = payload.getMimeType();
    std::string value = "null";
    if (!payload.isEmpty()) {
        value = format == kesa::mimetypes::JSON
                    ? asJsonLine(payload.text(), "the answer says that it is JSON, but is not")
                    : asJsonLine(asJsonText(payload.text()), fmt::format("the answer, of format '{}', cannot be shown "
                                                                         "as JSON; leave out --json",
                                                                         format));
    }
    return fmt::format(R"({{"status":{},"format":{},"value":{}}})"
                       "\n",
                       response.getStatus(), asJsonText(format), value);
}

kesa::Request makeRequest(const Arguments& arguments)
{
    kesa::Request request(arguments.command, arguments.resource, readBody(arguments.body));
    request.setMimeType(std::string(kesa::mimetypes::JSON));
    if (arguments.isFollowing) {
        kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::PERSISTENT_STREAM);
    }
    return request;
}

void call(const Arguments& arguments)
{
    kesa::Request request = makeRequest(arguments);
    const comm::TimeNs deadline = arguments.common.deadline();
    const System system;
    Connection connection(find(system, arguments, deadline));
    const Client client = connection.client(deadline);
    kesa::headers::appendTimeout(request, std::chrono::nanoseconds(deadline - comm::now()));
    Answers answers(client, request);
    const ReaderWatch reader([&answers] { answers.interrupt(); });
    for (bool isFirst = true;; isFirst = false) {
        const Answers::Answer answer = answers.next(isFirst ? deadline : comm::NEVER);
        // Whoever is first, this wait or the connection: one text.
        const bool isTimeOver = answer.response.getStatus() == 504 && isFirst && comm::now() >= deadline;
        switch (isTimeOver ? Answers::Kind::eTIMED_OUT : answer.kind) {
        case Answers::Kind::eVALUE:
            print(lineOf(answer.response, arguments.common.isJson));
            if (!arguments.isFollowing) {
                return;
            }
            break;
        case Answers::Kind::eCOMPLETED:
            return;
        case Answers::Kind::eINTERRUPTED:
            ReaderWatch::fail();
        case Answers::Kind::eERROR:
            throw Failure{ExitCode::eFAILED,
                          fmt::format("{} {} of {}: {}", arguments.command, arguments.resource, arguments.path,
                                      kesa::Response::getErrorMessageWithCode(answer.response))};
        case Answers::Kind::eTIMED_OUT:
            throw Failure{ExitCode::eTIMED_OUT,
                          fmt::format("no answer to {} {} of {} within {} s", arguments.command, arguments.resource,
                                      arguments.path, arguments.common.timeoutSeconds)};
        }
    }
}

} // namespace

void addCall(CLI::App& app)
{
    auto arguments = std::make_shared<Arguments>();
    CLI::App* const command = app.add_subcommand("call", "Sends a request to a service and prints the answer.");
    command->add_option("PATH", arguments->path, "Of the service.")->required()->check(checkPath)->type_name("");
    command->add_option("RESOURCE", arguments->resource, "Inside the service.")->check(checkResource)->type_name("");
    command->add_option("--command", arguments->command, "retrieve, insert, update or delete.")
        ->check(CLI::IsMember({"retrieve", "insert", "update", "delete"}))
        ->type_name("COMMAND")
        ->capture_default_str();
    command->add_option("--body", arguments->body, "JSON, or - for stdin.")->type_name("JSON");
    command->add_flag("--follow", arguments->isFollowing, "Asks for a stream, and prints it until it ends.");
    addCommonOptions(*command, arguments->common, "How long until the first answer.");
    command->callback([arguments] { call(*arguments); });
}

} // namespace kesactl
