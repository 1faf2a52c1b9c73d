#include "print_services.h"

#include "Failure.h"
#include "output.h"

#include <kesa/core/PayloadConversion.h>
#include <kesa/core/Serializer.h>
#include <kesa/mimetypes.h>
#include <kesa/serviceregistry/MetainfoKeys.h>
#include <obr/ErrorStorage.h>
#include <obr/visible.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <iterator>

namespace kesactl {

using obr::visible;
namespace {

using kesa::serviceregistry::enumToValue;
using kesa::serviceregistry::MetainfoKeys;
using Strings = std::vector<std::string>;

std::string typeOf(const ServiceDef& service)
{
    return ServiceDef::enumToValue(service.type).value_or("-");
}

std::string inOneLine(const Strings& list)
{
    return list.empty() ? "-" : fmt::format("{}", fmt::join(list, ", "));
}

std::string locatorsOf(const ServiceDef& service)
{
    std::vector<std::string> locators;
    for (const kesa::url& locator : service.locators) {
        locators.push_back(locator.toString());
    }
    return inOneLine(locators);
}

std::string metainfoOf(const ServiceDef& service)
{
    std::vector<std::string> members;
    if (service.metainfo) {
        for (const auto& [key, value] : *service.metainfo) {
            members.push_back(fmt::format("{}={}", key, value.toText()));
        }
    }
    return inOneLine(members);
}

struct Column {
    std::string_view name;
    std::string (*textOf)(const ServiceDef& service);
};

constexpr Column COLUMNS[] = {
    {"path", [](const ServiceDef& service) { return service.path.toString(); }},
    {"type", typeOf},
    {"versions", [](const ServiceDef& service) { return inOneLine(service.versions); }},
    {"provider", providerOf},
    {"locators", locatorsOf},
    {"formats", [](const ServiceDef& service) { return inOneLine(service.serializationFormats.value_or(Strings())); }},
    {"scope", [](const ServiceDef& service) { return inOneLine(service.scope.value_or(Strings())); }},
    {"metainfo", metainfoOf},
};

const Column* findColumn(std::string_view name)
{
    const auto* const found = std::find_if(std::begin(COLUMNS), std::end(COLUMNS),
                                           [name](const Column& column) { return column.name == name; });
    return found == std::end(COLUMNS) ? nullptr : found;
}

/// A segment of paths with what is below it.
struct Node {
    const ServiceDef* service = nullptr;
    std::map<std::string, Node> children;
};

void addTo(std::string& text, const Node& node, const std::string& indent)
{
    for (auto child = node.children.begin(); child != node.children.end(); ++child) {
        const bool isLast = std::next(child) == node.children.end();
        const ServiceDef* const service = child->second.service;
        text += fmt::format(
            "{}{}{}{}\n", indent, isLast ? "└── " : "├── ", visible(child->first),
            service == nullptr ? "" : fmt::format("  {} of {}", typeOf(*service), visible(providerOf(*service))));
        addTo(text, child->second, indent + (isLast ? "    " : "│   "));
    }
}

} // namespace

std::string providerOf(const ServiceDef& service)
{
    std::string provider;
    if (service.metainfo && !(*service.metainfo)[*enumToValue(MetainfoKeys::provider)].get(provider)) {
        return provider;
    }
    if (service.locators.empty()) {
        return "-";
    }
    const std::string_view endpoint = service.locators.front().authority();
    return std::string(endpoint.substr(0, endpoint.find('+')));
}

std::string checkColumn(const std::string& name)
{
    if (findColumn(name) != nullptr) {
        return {};
    }
    Strings known;
    for (const Column& column : COLUMNS) {
        known.emplace_back(column.name);
    }
    return fmt::format("there is no column '{}'; known are {}", name, inOneLine(known));
}

std::string asTable(const Services& services, const Strings& columns)
{
    std::vector<Strings> rows(1);
    for (const std::string& column : columns) {
        rows.front().push_back(column);
        std::transform(column.begin(), column.end(), rows.front().back().begin(), ::toupper);
    }
    for (const auto& [path, service] : services) {
        rows.emplace_back();
        for (const std::string& column : columns) {
            rows.back().push_back(findColumn(column)->textOf(service));
        }
    }
    const auto path = std::find(columns.begin(), columns.end(), "path");
    return path == columns.end() ? aligned(std::move(rows))
                                 : alignedToFit(std::move(rows), static_cast<std::size_t>(path - columns.begin()));
}

std::string asTree(const Services& services)
{
    Node root;
    for (const auto& [path, service] : services) {
        Node* node = &root;
        for (std::size_t begin = 1; begin < path.size();) {
            const std::size_t end = std::min(path.find('/', begin), path.size());
            node = &node->children[path.substr(begin, end - begin)];
            begin = end + 1;
        }
        node->service = &service;
    }
    std::string text = "/\n";
    addTo(text, root, "");
    return text;
}

std::string asDetails(const ServiceDef& service, const std::string& seenBy)
{
    std::string text;
    const auto add = [&text](std::string_view name, const std::string& value) {
        text += fmt::format("{:<12}  {}\n", name, visible(value));
    };
    add("path", service.path.toString());
    add("type", typeOf(service));
    add("versions", inOneLine(service.versions));
    add("provider", providerOf(service));
    for (const kesa::url& locator : service.locators) {
        add("locator", locator.toString());
    }
    add("formats", service.serializationFormats ? inOneLine(*service.serializationFormats) : "-");
    if (service.scope) {
        add("scope", inOneLine(*service.scope));
    }
    if (service.hostDomain) {
        add("host domain", *service.hostDomain);
    }
    if (service.id) {
        add("record", service.id->toString());
    }
    if (!seenBy.empty()) {
        add("seen by", seenBy);
    }
    if (service.metainfo) {
        for (const auto& [key, value] : *service.metainfo) {
            add("metainfo", fmt::format("{}: {}", key, value.toText()));
        }
    }
    return text;
}

std::string asJson(const ServiceDef& service)
{
    const auto payload = kesa::serializer::toPayload(service, kesa::mimetypes::JSON);
    if (!payload) {
        const std::string reason = obr::ErrorStorage::reason();
        obr::ErrorStorage::ack();
        throw Failure{ExitCode::eFAILED,
                      fmt::format("the record of {} has no form in JSON: {}", service.path.toString(), reason)};
    }
    std::string_view record = payload->text();
    record.remove_suffix(1); // its last brace
    return fmt::format("{},\"provider\":{}}}", record, asJsonString(providerOf(service)));
}

std::string asJsonLines(const Services& services)
{
    std::string lines;
    for (const auto& [path, service] : services) {
        lines += asJson(service) + '\n';
    }
    return lines;
}

} // namespace kesactl
