// may: whether somebody may register or see a service, by the policy that the registry has. Nothing is tried.
#include "Answers.h"
#include "Failure.h"
#include "ServiceConnection.h"
#include "System.h"
#include "commands.h"
#include "explainNoRegistry.h"
#include "options.h"
#include "output.h"
#include "registryFaults.h"

#include <CLI/CLI.hpp>
#include <common/RegistryPlace.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/reasonOf.h>
#include <kesa/responsesemantics.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/IServiceRegistry.h>
#include <obr/visible.h>

#include <fmt/format.h>

#include <unistd.h>

namespace kesactl {
namespace {

using kesa::serviceregistry::IServiceRegistry;
using util::config::Value;

struct MayArguments {
    std::string who;
    std::string right;
    std::string path;
    CommonOptions common;
};

/// What the registry says of what `who` may at the path.
Value ask(const MayArguments& arguments)
{
    const System system;
    const kesa::url registry = apps::findRegistryPlace("kesactl-" + std::to_string(::getpid()),
                                                       kesa::runtime::v02::KesaRuntime::WITH_REGISTRYD)
                                   .locators.front();
    ServiceConnection connection(ServiceDef(kesa::Path("/registry"), ServiceDef::TypeEnum::registry, {}, {registry}));
    const comm::TimeNs deadline = arguments.common.deadline();
    const ServiceConnection::Client client = connection.tryClient(deadline);
    if (!client) {
        const Unreached why = explainNoRegistry(registry, 0);
        throw Failure{ExitCode::eNO_REGISTRY,
                      fmt::format("the registry at {}: {}; {}", registry.toString(), why.text, why.advice)};
    }
    kesa::Request request(IServiceRegistry::EXPLAIN, arguments.path,
                          kesa::Payload::createFromString(
                              fmt::format("{{\"{}\":{}}}", IServiceRegistry::EXPLAIN_FOR, asJsonString(arguments.who)),
                              kesa::mimetypes::JSON));
    kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::SINGLE_RESPONSE);
    kesa::headers::appendTimeout(request, std::chrono::nanoseconds(deadline - comm::now()));
    Answers answers(client, request);
    const Answers::Answer answer = answers.next(deadline);
    if (answer.kind == Answers::Kind::eTIMED_OUT) {
        throw Failure{ExitCode::eTIMED_OUT, "the registry has not answered in time"};
    }
    if (answer.kind != Answers::Kind::eVALUE) {
        throw Failure{ExitCode::eFAILED, "the registry answers " + kesa::reasonOf(answer.response)};
    }
    Value explanation;
    if (const std::string fault = readExplanation(answer.response, explanation); !fault.empty()) {
        throw Failure{ExitCode::eFAILED, explainFault(registry, fault).text};
    }
    return explanation["for"]["may"];
}

void may(const MayArguments& arguments, int& exitCode)
{
    const Value all = ask(arguments);
    if (!all.isArray()) {
        throw Failure{ExitCode::eFAILED, "the registry tells what others may only to root and to its own user"};
    }
    if (all.arraySize() == 0) {
        throw Failure{ExitCode::eFAILED, fmt::format("there is no user \"{}\", and no process of that name asks the "
                                                     "registry for anything",
                                                     obr::visible(arguments.who))};
    }
    for (const Value& one : all.items()) {
        const Value& verdict = one[arguments.right.c_str()];
        const bool isAllowed = verdict["allowed"] == true;
        exitCode = isAllowed ? exitCode : static_cast<int>(ExitCode::eFAILED);
        print(arguments.common.isJson
                  ? fmt::format("{{\"who\":{},\"allowed\":{},\"because\":{}}}\n", asJsonString(one["who"].toText()),
                                isAllowed, asJsonString(verdict["because"].toText()))
                  : fmt::format("{} may {}{} {}: {}\n", obr::visible(one["who"].toText()), isAllowed ? "" : "not ",
                                arguments.right, arguments.path, obr::visible(verdict["because"].toText())));
    }
}

} // namespace

void addMay(CLI::App& app, int& exitCode)
{
    auto arguments = std::make_shared<MayArguments>();
    CLI::App* const command =
        app.add_subcommand("may", "Says whether somebody may register or see a service, without trying it.");
    command->add_option("WHO", arguments->who, "A user, by name or number, or the name of a process that runs.")
        ->required()
        ->type_name("");
    command->add_option("RIGHT", arguments->right, "register or see.")
        ->required()
        ->check(CLI::IsMember({"register", "see"}))
        ->type_name("");
    command->add_option("PATH", arguments->path, "Of the service.")->required()->check(checkPath)->type_name("");
    addCommonOptions(*command, arguments->common, "How long the registry may take.");
    command->footer(
        "The registry answers by the policy that it has at the moment, to root and its own user, and to others "
        "of themselves. Exit code: 0 when it is allowed, 1 when not.");
    command->callback([arguments, &exitCode] { may(*arguments, exitCode); });
}

} // namespace kesactl
