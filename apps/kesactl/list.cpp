#include "Failure.h"
#include "System.h"
#include "commands.h"
#include "options.h"
#include "output.h"
#include "print_services.h"

#include <CLI/CLI.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <sstream>

namespace kesactl {
namespace {

struct ListArguments {
    std::string glob = "**";
    std::vector<std::string> where;
    std::string type;
    std::string provider;
    std::string columns = "path,type,versions,provider,locators";
    CommonOptions common;
};

/// Whether the value is that text, or a list that has it.
bool has(const util::config::Value& value, const std::string& text)
{
    const auto isThat = [&text](const auto& one) { return one.isDefined() && one.toText() == text; };
    return isThat(value) || std::any_of(value.items().begin(), value.items().end(), isThat);
}

/// As a query compares them: three are fields of the record, whatever its metainfo says.
util::config::Value valueOf(const ServiceDef& service, const std::string& key)
{
    using util::config::Value;
    if (key == "type") {
        return Value(ServiceDef::enumToValue(service.type).value_or(""));
    }
    if (key == "id") {
        return service.id ? Value(service.id->toString()) : Value::getUndefined();
    }
    if (key == "locators") {
        std::vector<Value> locators;
        for (const kesa::url& locator : service.locators) {
            locators.emplace_back(locator.toString());
        }
        return Value(std::move(locators));
    }
    return service.metainfo ? (*service.metainfo)[key] : Value::getUndefined();
}

bool isWanted(const ServiceDef& service, const ListArguments& arguments)
{
    const auto fits = [&service](const std::string& condition) {
        const std::size_t end = condition.find('=');
        return has(valueOf(service, condition.substr(0, end)), condition.substr(end + 1));
    };
    return std::all_of(arguments.where.begin(), arguments.where.end(), fits) &&
           (arguments.type.empty() || arguments.type == ServiceDef::enumToValue(service.type)) &&
           (arguments.provider.empty() || arguments.provider == providerOf(service));
}

RegistryView::Answer find(const ListArguments& arguments)
{
    const System system;
    auto [services, isAll] = system.view(arguments.glob)->list(arguments.common.deadline());
    const std::size_t count = services.size();
    std::erase_if(services, [&arguments](const auto& each) { return !isWanted(each.second, arguments); });
    if (services.empty() && !isAll) {
        RegistryView::failUnsettled();
    }
    if (count == 0) {
        throw Failure{ExitCode::eFAILED, fmt::format("no service matches '{}'; kesactl list shows all{}",
                                                     arguments.glob, adviseWhy(arguments.glob))};
    }
    if (services.empty()) {
        throw Failure{ExitCode::eFAILED,
                      fmt::format("{} that match{} '{}' is so; kesactl show PATH has the type, the provider and the "
                                  "metainfo of one",
                                  count == 1 ? "not the one service" : fmt::format("none of the {} services", count),
                                  count == 1 ? "es" : "", arguments.glob)};
    }
    return {std::move(services), isAll};
}

/// What is known is printed, even when it may be not all.
void printList(const ListArguments& arguments, const std::function<std::string(const Services&)>& asText)
{
    const auto [services, isAll] = find(arguments);
    print(arguments.common.isJson ? asJsonLines(services) : fitted(asText(services)));
    if (!isAll) {
        RegistryView::failUnsettled();
    }
}

std::vector<std::string> split(const std::string& names)
{
    std::vector<std::string> all;
    std::istringstream rest(names);
    for (std::string name; std::getline(rest, name, ',');) {
        all.push_back(name);
    }
    return all;
}

std::string checkColumns(const std::string& names)
{
    const std::vector<std::string> all = split(names);
    for (const std::string& name : all) {
        if (std::string wrong = checkColumn(name); !wrong.empty()) {
            return wrong;
        }
    }
    return all.empty() ? checkColumn("") : "";
}

/// The second of columns that were not given as one word.
std::string checkNoColumn(const CLI::App& list, const std::string& glob)
{
    const CLI::Option& columns = *list.get_option("--columns");
    return columns.count() != 0 && checkColumn(glob).empty()
               ? fmt::format("'{1}' is a column: columns are given as one word, --columns {0},{1}; a path begins with "
                             "'/': '/{1}'",
                             columns.results().front(), glob)
               : "";
}

std::string checkCondition(const std::string& condition)
{
    const std::size_t end = condition.find('=');
    return end == 0 || end == std::string::npos ? "'" + condition + "' is no condition; write KEY=VALUE" : "";
}

CLI::App& add(CLI::App& app, const char* name, const char* description, const std::shared_ptr<ListArguments>& arguments)
{
    CLI::App* const command = app.add_subcommand(name, description);
    command->add_option("GLOB", arguments->glob, "Of paths: '/system/**', '/media/*'; without it all.")
        ->check(checkGlob)
        ->type_name("");
    command
        ->add_option("--where", arguments->where,
                     "With that metainfo, type, id or locators, or a list that has it; as often as needed.")
        ->check(checkCondition)
        ->allow_extra_args(false)
        ->type_name("KEY=VALUE");
    command->add_option("--type", arguments->type, "Of that type.")
        ->check(CLI::IsMember({"pex", "lomo", "gateway", "registry"}))
        ->type_name("TYPE");
    command->add_option("--provider", arguments->provider, "Of that process.")->check(checkProcess)->type_name("NAME");
    addCommonOptions(*command, arguments->common, "How long the registry may take to answer.");
    return *command;
}

} // namespace

void addList(CLI::App& app)
{
    auto arguments = std::make_shared<ListArguments>();
    CLI::App& list = add(app, "list", "Lists the services.", arguments);
    list.add_option("--columns", arguments->columns, "Of the table, in order; also formats, scope and metainfo.")
        ->check(checkColumns)
        ->excludes("--json")
        ->type_name("NAME,...")
        ->capture_default_str();
    list.get_option("GLOB")->check([&list](const std::string& glob) { return checkNoColumn(list, glob); });
    list.callback([arguments] {
        printList(*arguments, [&](const Services& services) { return asTable(services, split(arguments->columns)); });
    });
    auto ofTree = std::make_shared<ListArguments>();
    add(app, "tree", "Shows the services as a tree of their paths; as JSON, the same lines as list.", ofTree)
        .callback([ofTree] { printList(*ofTree, asTree); });
}

} // namespace kesactl
