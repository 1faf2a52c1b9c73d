#include "print_config.h"

#include "displayWidth.h"

#include <kesa/core/PayloadConversion.h>
#include <obr/visible.h>
#include <util/config/JSONParser.h>

#include <algorithm>
#include <fmt/format.h>

namespace kesactl {

using obr::visible;
namespace {

using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::ProxyConfig;
using kesa::runtime::v02::RegistryLimits;
using kesa::serviceregistry::ServiceDef;
using util::config::Complaint;
using util::config::Dictionary;
using util::config::excerpt;
using util::config::Value;

/// A setting and its value; the members of a table are indented.
struct SettingRow {
    std::string name;
    std::string value;
};
using SettingRows = std::vector<SettingRow>;

const char* severityName(Complaint::Severity severity)
{
    return severity == Complaint::Severity::eERROR     ? "error"
           : severity == Complaint::Severity::eWARNING ? "warning"
                                                       : "hint";
}

// The same settings are shown as text and as JSON: both begin with these values.

template <class T>
Value toValue(const T& value)
{
    return Value(value);
}

Value toValue(const kesa::url& locator)
{
    return Value(locator.toString());
}

template <class T>
Value toValue(const std::vector<T>& list)
{
    Value::Array array;
    for (const T& element : list) {
        array.push_back(toValue(element));
    }
    return Value(std::move(array));
}

template <class Map>
Value toTable(const Map& map)
{
    std::vector<Value::Member> members;
    for (const auto& [key, value] : map) {
        members.emplace_back(key, toValue(value));
    }
    return Value(Dictionary(std::move(members)));
}

Value registry(const RegistryLimits& limits)
{
    return Value(Dictionary{{"max_user_bytes", limits.m_maxUserBytes}, {"max_bytes", limits.m_maxBytes}});
}

Value smartProxy(const ProxyConfig& proxy)
{
    Dictionary settings;
    const auto add = [&](const char* key, const auto& value) {
        if (value) {
            settings.set(key, toValue(*value));
        }
    };
    add("timeout", proxy.m_timeout);
    add("retryTimes", proxy.m_retryTimes);
    add("mandatoryForwardErrors", proxy.m_mandatoryForwardErrors);
    add("mandatroyRetryErrorsSubscribeList", proxy.m_mandatroyRetryErrorsSubscribeList);
    add("mandatroyRetryErrorsSubscribeElement", proxy.m_mandatroyRetryErrorsSubscribeElement);
    return Value(std::move(settings));
}

std::string inOneLine(const Value& value)
{
    if (!value.isArray()) {
        return value.isDictionary() && value.dictionary().empty() ? "none" : excerpt(value.toText());
    }
    std::string line;
    for (const Value& element : value.items()) {
        line.append(line.empty() ? "" : ", ").append(excerpt(element.toText()));
    }
    return line.empty() ? "none" : line;
}

void addTable(SettingRows& rows, const std::string& name, const Value& table)
{
    rows.push_back({name, table.dictionary().empty() ? "none" : ""});
    for (const auto& [key, value] : table) {
        rows.push_back({"  " + excerpt(key), inOneLine(value)});
    }
}

void addServices(SettingRows& rows, const std::vector<ServiceDef>& services)
{
    rows.push_back({"services", services.empty() ? "none" : ""});
    std::size_t width = 1;
    for (const ServiceDef& service : services) {
        width = std::max(width, displayWidth(inOneLine(toValue(service.versions))));
    }
    for (const ServiceDef& service : services) {
        rows.push_back(
            {"  " + excerpt(service.path.toString()),
             fmt::format("{:<8}  {}  {}", *ServiceDef::enumToValue(service.type),
                         padded(service.versions.empty() ? "-" : inOneLine(toValue(service.versions)), width),
                         inOneLine(toValue(service.locators)))});
    }
}

SettingRows settings(const CheckResult& result)
{
    const KesaConfig& config = result.config;
    SettingRows rows = {{"file", result.file.empty() ? "none: the built-in document counts" : result.file}};
    if (result.process) {
        rows.push_back({"process", excerpt(*result.process)});
        rows.push_back({"partition", excerpt(result.partition)});
    }
    rows.push_back({"use_local_registry", config.m_useLocalRegistry ? "true" : "false"});
    rows.push_back({"use_registry", config.m_useRemoteRegistry ? "true" : "false"});
    addTable(rows, "service_registry_locators", toTable(config.m_registryLocators));
    rows.push_back({"backends", inOneLine(toValue(config.m_backends))});
    addTable(rows, "serializer-formats", toTable(config.m_serializers));
    addServices(rows, config.m_services);
    addTable(rows, "bypass", toTable(config.m_bypass));
    addTable(rows, "smartProxy", smartProxy(config.m_proxyConfig));
    addTable(rows, "node_domain_mapping", toTable(config.m_nodeDomainMapping));
    addTable(rows, "registry", registry(config.m_registryLimits));
    for (const auto& [name, words] : result.policy.words) {
        rows.push_back({"  " + name, excerpt(words)});
    }
    if (!result.access.words.empty()) {
        rows.push_back({"access", ""});
    }
    for (const auto& [name, words] : result.access.words) {
        rows.push_back({"  " + name, excerpt(words)});
    }
    addTable(rows, "comm", result.comm);
    rows.push_back({"run directory", fmt::format("{} ({})", excerpt(result.runDirectory), result.runDirectorySource)});
    return rows;
}

std::string alignedSettings(SettingRows rows)
{
    std::size_t width = 0;
    for (SettingRow& row : rows) {
        row = {visible(row.name), visible(row.value)};
        width = std::max(width, displayWidth(row.name));
    }
    std::string text;
    for (const SettingRow& row : rows) {
        text += row.value.empty() ? row.name + "\n" : fmt::format("{}  {}\n", padded(row.name, width), row.value);
    }
    return text;
}

/// As compilers write it, so that editors find the place.
std::string asLine(const CheckResult& result, const Complaint& complaint)
{
    std::string place = result.file;
    if (complaint.line > 0) {
        place += fmt::format(":{}:{}", complaint.line, complaint.column);
    }
    return visible(fmt::format("{}{}{}: {}{}{}", place, place.empty() ? "" : ": ", severityName(complaint.severity),
                               util::config::toText(complaint.path), complaint.path.empty() ? "" : ": ",
                               complaint.words())) +
           '\n';
}

Value asValue(const Complaint& complaint)
{
    Dictionary value{{"severity", severityName(complaint.severity)}, {"text", complaint.words()}};
    if (!complaint.path.empty()) {
        value.set("path", util::config::toText(complaint.path));
    }
    if (complaint.line > 0) {
        value.set("line", complaint.line);
        value.set("column", complaint.column);
    }
    return Value(std::move(value));
}

/// In its wire form.
Value asValue(const ServiceDef& service)
{
    Value value;
    const auto payload = kesa::serializer::toPayload(service, kesa::mimetypes::JSON);
    if (!payload || util::config::JSONParser().parseString(payload->text(), value)) {
        return Value(nullptr);
    }
    return value;
}

template <class T>
Value asArray(const std::vector<T>& list)
{
    Value::Array array;
    for (const T& element : list) {
        array.push_back(asValue(element));
    }
    return Value(std::move(array));
}

std::string verdict(const CheckResult& result)
{
    if (result.isValid) {
        return "valid";
    }
    if (!result.counts) {
        return result.access.isWrong
                   ? "not valid: a process goes on with the settings above, and closes all its services to other users"
                   : "not valid: a process goes on with the settings above";
    }
    if (!result.starts) {
        return "not valid: a process does not start with it";
    }
    const char* const access = result.access.isWrong ? "a process closes all its services to other users" : "";
    const char* const policy = !result.policy.isWrong  ? ""
                               : result.access.isWrong ? "kesa-registryd does not start with it, and "
                                                       : "kesa-registryd does not start with it; other processes do";
    return fmt::format("not valid: {}{}", policy, access);
}

} // namespace

std::string asText(const CheckResult& result)
{
    std::string text = alignedSettings(settings(result)) + "\n";
    for (const auto& complaint : result.complaints) {
        text += asLine(result, complaint);
    }
    return text + verdict(result) + '\n';
}

void addRules(Dictionary& object, const char* key, const RulesInWords& words)
{
    Value::Array rules;
    for (const auto& [name, text] : words) {
        rules.emplace_back(fmt::format("{}: {}", name, text));
    }
    if (!rules.empty()) {
        object.set(key, std::move(rules));
    }
}

std::string asJson(const CheckResult& result)
{
    const KesaConfig& config = result.config;
    const Dictionary configuration{{"use_local_registry", config.m_useLocalRegistry},
                                   {"use_registry", config.m_useRemoteRegistry},
                                   {"service_registry_locators", toTable(config.m_registryLocators)},
                                   {"backends", toValue(config.m_backends)},
                                   {"serializer-formats", toTable(config.m_serializers)},
                                   {"services", asArray(config.m_services)},
                                   {"bypass", toTable(config.m_bypass)},
                                   {"smartProxy", smartProxy(config.m_proxyConfig)},
                                   {"node_domain_mapping", toTable(config.m_nodeDomainMapping)},
                                   {"registry", registry(config.m_registryLimits)},
                                   {"comm", result.comm}};
    Dictionary object{{"valid", result.isValid},
                      {"file", result.file.empty() ? Value(nullptr) : Value(result.file)},
                      {"configuration", configuration},
                      {"run_directory", result.runDirectory},
                      {"run_directory_from", result.runDirectorySource},
                      {"complaints", asArray(result.complaints)}};
    addRules(object, "policy", result.policy.words);
    addRules(object, "access", result.access.words);
    if (result.process) {
        object.set("process", *result.process);
        object.set("partition", result.partition);
    }
    return Value(object).toText();
}

} // namespace kesactl
