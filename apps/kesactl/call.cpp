#include "Answers.h"
#include "Failure.h"
#include "ServiceConnection.h"
#include "commands.h"
#include "options.h"
#include "output.h"
#include "peerText.h"
#include "resources.h"

#include <CLI/CLI.hpp>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/processName.h>
#include <kesa/reasonOf.h>
#include <kesa/responsesemantics.h>
#include <obr/ErrorStorage.h>
#include <transport/Authority.h>
#include <util/config/JSONParser.h>

#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <optional>

namespace kesactl {
namespace {

/// The options that say what to ask for.
constexpr const char* OF_REQUEST[] = {"RESOURCE", "--command", "--body", "--header", "--follow"};

struct CallArguments {
    std::string path;
    std::string resource = "/";
    std::string command = "retrieve";
    std::optional<std::string> body;
    std::string format{kesa::mimetypes::JSON};
    std::vector<std::string> headers;
    std::string locator;
    bool isFollowing = false;
    std::uint64_t count = 0; ///< of values; 0: to the end
    bool isAlone = true;     ///< none of `OF_REQUEST` was given
    CommonOptions common;
};

/// What is wrong with a JSON text; its value when nothing is.
std::optional<std::string> parseJson(std::string_view text, util::config::Value& value)
{
    if (!util::config::JSONParser().parseString(text, value)) {
        return std::nullopt;
    }
    std::string reason = obr::ErrorStorage::reason();
    obr::ErrorStorage::ack();
    return reason;
}

/// The body as it was given, on stdin for "-"; one of JSON once it is known to be that.
kesa::Payload readBody(const CallArguments& arguments)
{
    if (!arguments.body) {
        return {};
    }
    std::string text =
        *arguments.body == "-" ? std::string(std::istreambuf_iterator<char>(std::cin), {}) : *arguments.body;
    util::config::Value value;
    if (arguments.format == kesa::mimetypes::JSON) {
        if (const auto reason = parseJson(text, value)) {
            throw Failure{ExitCode::eUSAGE,
                          fmt::format("the body cannot be read as JSON: {}; nothing was sent. A text has double "
                                      "quotes, '\"text\"', or another --format",
                                      *reason)};
        }
    }
    return kesa::Payload::createFromString(std::move(text), arguments.format);
}

std::string checkHeader(const std::string& header)
{
    const std::size_t end = header.find('=');
    if (end == 0 || end == std::string::npos) {
        return "'" + header + "' is no header; write NAME=VALUE";
    }
    return header.substr(0, end) == kesa::headers::TIMEOUT ? "the time limit of the request is --timeout" : "";
}

std::string checkCommand(const std::string& command)
{
    return command.empty() ? "the command is empty; write one such as retrieve" : "";
}

std::string checkLocator(const std::string& text)
{
    const kesa::url locator(text);
    if (locator.scheme() == "ipc" && !kesa::commadapter::transport::parseProcessAuthority(locator, "ipc")) {
        return fmt::format("'{}' names no process; a name has 1 to {} bytes, those other than A-Z a-z 0-9 . _ - as %XX",
                           text, kesa::LONGEST_PROCESS_NAME);
    }
    constexpr const char* EXAMPLE = "write one such as ipc://media or ipc://media/media/player";
    if (!locator.isValid() || !locator.isAbsolute() || locator.hasQueryOrFragment()) {
        return fmt::format("'{}' is no locator; {}", text, EXAMPLE);
    }
    if (locator.scheme() != "ipc") {
        return fmt::format("'{}' is of the scheme \"{}\", and processes are reached over \"ipc\" only; {}", text,
                           locator.scheme(), EXAMPLE);
    }
    return locator.path().empty() || kesa::Path::isCanonical(std::string(locator.path()))
               ? ""
               : fmt::format("'{}' has no path of a service: {}; {}", text,
                             kesa::Path::complaintAbout(std::string(locator.path())), EXAMPLE);
}

kesa::Request makeRequest(const CallArguments& arguments)
{
    kesa::Request request(arguments.command, arguments.resource, readBody(arguments));
    request.setMimeType(std::string(kesa::mimetypes::JSON));
    if (arguments.isFollowing) {
        kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::PERSISTENT_STREAM);
    }
    for (const std::string& header : arguments.headers) {
        const std::size_t end = header.find('=');
        const std::string text = header.substr(end + 1);
        util::config::Value value;
        if (parseJson(text, value)) {
            value = util::config::Value(text);
        }
        request.setHeader(header.substr(0, end), std::move(value));
    }
    return request;
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
        value =
            format == kesa::mimetypes::JSON
                ? asJsonLine(payload.text(), "the answer says that it is JSON, but is not")
                : asJsonLine(asJsonString(payload.text()), fmt::format("the answer, of format '{}', cannot be shown "
                                                                       "as JSON; leave out --json",
                                                                       format));
    }
    return fmt::format(R"({{"status":{},"format":{},"value":{}}})"
                       "\n",
                       response.getStatus(), asJsonString(format), value);
}

/// What the text of an error does not say: headers, and a body of another format. Null for one that JSON cannot say.
std::string membersOf(const kesa::Response& error)
{
    std::string members;
    if (!error.getHeaders().empty()) {
        members += fmt::format(R"(,"headers":{})", util::config::Value(error.getHeaders()).toText());
    }
    const kesa::Payload& body = error.getPayload();
    if (!body.isEmpty() && body.getMimeType() != kesa::mimetypes::TEXT) {
        util::config::Value value;
        if (parseJson(body.getMimeType() == kesa::mimetypes::JSON ? body.text() : asJsonString(body.text()), value)) {
            value = util::config::Value(nullptr);
        }
        const std::string list = util::config::Value(util::config::Value::Array{value}).toText();
        members += fmt::format(R"(,"format":{},"value":{})", asJsonString(body.getMimeType()),
                               list.substr(1, list.size() - 2));
    }
    return members;
}

/// The record of the service, of which a given locator says enough; one that names the process only gets the path.
ServiceDef find(const System& system, const CallArguments& arguments, comm::TimeNs deadline)
{
    if (arguments.locator.empty()) {
        return findService(system, arguments.path, deadline);
    }
    kesa::url locator(arguments.locator);
    if (locator.path().empty()) {
        locator.init(arguments.locator + arguments.path);
    } else if (locator.path() != arguments.path) {
        throw Failure{ExitCode::eUSAGE,
                      fmt::format("the locator leads to {}, and the path is {}", locator.path(), arguments.path), 0,
                      fmt::format("leave the path out of the locator, or call {}", locator.path())};
    }
    return {kesa::Path(arguments.path), ServiceDef::TypeEnum::pex, {}, {locator}};
}

void call(const CallArguments& arguments)
{
    kesa::Request request = makeRequest(arguments);
    const comm::TimeNs deadline = arguments.common.deadline();
    const System system(false);
    ServiceConnection connection(find(system, arguments, deadline));
    const ServiceConnection::Client client = connection.client(deadline);
    if (arguments.isAlone) {
        printResources(client, arguments.path, arguments.common, deadline);
        return;
    }
    kesa::headers::appendTimeout(request, std::chrono::nanoseconds(deadline - comm::now()));
    Answers answers(client, request);
    const ReaderWatch reader([&answers] { answers.interrupt(); });
    for (std::uint64_t printed = 0; arguments.count == 0 || printed < arguments.count; ++printed) {
        const bool isFirst = printed == 0;
        const Answers::Answer answer = answers.next(isFirst ? deadline : comm::NEVER);
        // Whoever is first, this wait or the connection: one text.
        const bool isTimeOver = answer.response.getStatus() == 504 && isFirst && comm::now() >= deadline;
        switch (isTimeOver ? Answers::Kind::eTIMED_OUT : answer.kind) {
        case Answers::Kind::eVALUE:
            printValue(lineOf(answer.response, arguments.common.isJson));
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
                                      shortened(kesa::reasonOf(answer.response))), // what the service means to say
                          static_cast<int>(answer.response.getStatus()),
                          {},
                          arguments.common.isJson ? membersOf(answer.response) : ""};
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
    auto arguments = std::make_shared<CallArguments>();
    CLI::App* const command = app.add_subcommand(
        "call", "Sends a request to a service and prints the answer; PATH alone lists its resources.");
    command->add_option("PATH", arguments->path, "Of the service.")->required()->check(checkPath)->type_name("");
    command->add_option("RESOURCE", arguments->resource, "Inside the service; / for the service itself.")
        ->check(checkResource)
        ->type_name("");
    command->add_option("--command", arguments->command, "retrieve, insert, update, delete, or any other word.")
        ->check(checkCommand)
        ->type_name("COMMAND")
        ->capture_default_str();
    command->add_option("--body", arguments->body, "The body, or - for stdin.")->type_name("BODY");
    command->add_option("--format", arguments->format, "Of the body.")->type_name("FORMAT")->capture_default_str();
    command->add_option("--header", arguments->headers, "A header; as often as needed. VALUE is JSON, else a text.")
        ->check(checkHeader)
        ->allow_extra_args(false)
        ->type_name("NAME=VALUE");
    command->add_option("--locator", arguments->locator, "Where the service is, without asking the registry.")
        ->check(checkLocator)
        ->type_name("URL");
    CLI::Option* const follow =
        command->add_flag("--follow", arguments->isFollowing, "Asks for a stream, and prints it until it ends.");
    command->add_option("--count", arguments->count, "Ends after so many values.")
        ->needs(follow)
        ->check(checkCount)
        ->type_name("VALUES");
    addCommonOptions(*command, arguments->common, "How long until the first answer.");
    command->callback([arguments, command] {
        arguments->isAlone = std::all_of(std::begin(OF_REQUEST), std::end(OF_REQUEST),
                                         [command](const char* option) { return command->count(option) == 0; });
        call(*arguments);
    });
}

} // namespace kesactl
