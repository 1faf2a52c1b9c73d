#include "System.h"
#include "commands.h"
#include "options.h"
#include "output.h"
#include "print_services.h"

#include <CLI/CLI.hpp>
#include <comm/wallClock.h>
#include <obr/visible.h>

#include <fmt/format.h>

#include <array>
#include <ctime>

namespace kesactl {

using obr::visible;
namespace {

using Event = RegistryView::Event;

struct WatchArguments {
    std::string glob = "**";
    std::uint64_t count = 0; ///< 0: for ever
    CommonOptions common;
};

struct Words {
    const char* json;
    const char* text;
};
constexpr std::array<Words, 5> WORDS = {{{"added", "+"},
                                         {"removed", "-"},
                                         {"registry lost", "! the registry is lost; waiting for it"},
                                         {"registry found", "! the registry is back"},
                                         {"left out", "! too slowly read:"}}};

/// Text: the time of this place; JSON: date and time of UTC. Both to the millisecond.
std::string timeStamp(bool isJson)
{
    const comm::TimeNs now = comm::wallClock();
    const std::time_t seconds = now / comm::SECOND;
    std::tm parts{};
    std::array<char, 32> text;
    if (isJson) {
        ::gmtime_r(&seconds, &parts);
    } else {
        ::localtime_r(&seconds, &parts);
    }
    const std::size_t size = std::strftime(text.data(), text.size(), isJson ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", &parts);
    return fmt::format("{}.{:03}{}", std::string_view(text.data(), size), now % comm::SECOND / comm::MILLISECOND,
                       isJson ? "Z" : "");
}

std::string lineOf(const Event& event, bool isJson)
{
    const std::string time = timeStamp(isJson);
    const bool isOfService = event.kind == Event::Kind::eADDED || event.kind == Event::Kind::eREMOVED;
    const Words& words = WORDS.at(static_cast<std::size_t>(event.kind));
    if (event.kind == Event::Kind::eLEFT_OUT) {
        return isJson ? fmt::format(R"({{"time":"{}","event":"{}","changes":{}}})", time, words.json, event.leftOut)
                      : fmt::format("{} {} {} changes are left out; what has come of them follows", time, words.text,
                                    event.leftOut);
    }
    if (isJson) {
        return isOfService ? fmt::format(R"({{"time":"{}","event":"{}","service":{}}})", time, words.json,
                                         asJson(event.service))
                           : fmt::format(R"({{"time":"{}","event":"{}"}})", time, words.json);
    }
    return isOfService ? fmt::format("{} {} {}  of {}", time, words.text, visible(event.service.path.toString()),
                                     visible(providerOf(event.service)))
                       : fmt::format("{} {}", time, words.text);
}

void watch(const WatchArguments& arguments)
{
    const System system;
    const auto view = system.view(arguments.glob);
    const ReaderWatch reader([&view = *view] { view.interrupt(); });
    view->await(arguments.common.deadline()); // a registry that is not there is an error at first
    for (std::uint64_t printed = 0; arguments.count == 0 || printed < arguments.count; ++printed) {
        print(lineOf(view->next(), arguments.common.isJson) + '\n');
    }
}

} // namespace

void addWatch(CLI::App& app)
{
    auto arguments = std::make_shared<WatchArguments>();
    CLI::App* const command = app.add_subcommand("watch", "Prints each service that is there, and then each change.");
    command->add_option("GLOB", arguments->glob, "Of paths: '/system/**', '/media/*'; without it all.")
        ->check(checkGlob)
        ->type_name("");
    command->add_option("--count", arguments->count, "Ends after so many lines.")
        ->check(checkCount)
        ->type_name("LINES");
    addCommonOptions(*command, arguments->common, "How long the registry may take to answer at first.");
    command->callback([arguments] { watch(*arguments); });
}

} // namespace kesactl
