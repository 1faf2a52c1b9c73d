#include "System.h"
#include "commands.h"
#include "options.h"
#include "output.h"
#include "print_services.h"

#include <CLI/CLI.hpp>

#include <fmt/format.h>

#include <array>

namespace kesactl {
namespace {

using Event = RegistryView::Event;

struct Arguments {
    std::string glob = "**";
    std::uint64_t count = 0; ///< 0: for ever
    CommonOptions common;
};

struct Words {
    const char* json;
    const char* text;
};
constexpr std::array<Words, 4> WORDS = {{{"added", "+"},
                                         {"removed", "-"},
                                         {"registry lost", "! the registry is lost; waiting for it"},
                                         {"registry found", "! the registry is back"}}};

std::string lineOf(const Event& event, bool isJson)
{
    const bool isOfService = event.kind == Event::Kind::eADDED || event.kind == Event::Kind::eREMOVED;
    const Words& words = WORDS.at(static_cast<std::size_t>(event.kind));
    if (isJson) {
        return isOfService ? fmt::format(R"({{"event":"{}","service":{}}})", words.json, asJson(event.service))
                           : fmt::format(R"({{"event":"{}"}})", words.json);
    }
    return isOfService
               ? fmt::format("{} {}  of {}", words.text, event.service.path.toString(), providerOf(event.service))
               : words.text;
}

void watch(const Arguments& arguments)
{
    const System system;
    const auto view = system.view(arguments.glob);
    const ReaderWatch reader([&view = *view] { view.interrupt(); });
    static_cast<void>(view->list(arguments.common.deadline())); // a registry that is not there is an error at first
    for (std::uint64_t printed = 0; arguments.count == 0 || printed < arguments.count; ++printed) {
        print(lineOf(view->next(), arguments.common.isJson) + '\n');
    }
}

} // namespace

void addWatch(CLI::App& app)
{
    auto arguments = std::make_shared<Arguments>();
    CLI::App* const command = app.add_subcommand("watch", "Prints each service that is there, and then each change.");
    command->add_option("GLOB", arguments->glob, "Of paths: '/system/**', '/media/*'; without it all.")
        ->check(checkGlob)
        ->type_name("");
    command->add_option("--count", arguments->count, "Ends after so many lines.")->type_name("LINES");
    addCommonOptions(*command, arguments->common, "How long the registry may take to answer at first.");
    command->callback([arguments] { watch(*arguments); });
}

} // namespace kesactl
