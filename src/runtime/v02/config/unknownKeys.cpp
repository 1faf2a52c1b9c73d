#include "unknownKeys.h"

#include "ConfigNode.h"

#include <util/nearestName.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace kesa::runtime::v02 {
namespace {

using Keys = std::vector<std::string_view>;

constexpr std::string_view WHOLE = "kesa"; ///< the member that holds the configuration in a document

/// An object of the document with keys of its own.
struct KeyGroup {
    std::string_view name;  ///< of the member; empty: the configuration itself
    std::string_view place; ///< "in " it, in words
    Keys keys;
};

struct KeyGroups {
    KeyGroup root;
    KeyGroup comm;
    KeyGroup services; ///< each of them
    KeyGroup smartProxy;
    KeyGroup registry;

    std::array<const KeyGroup*, 5> all() const { return {&root, &comm, &services, &smartProxy, &registry}; }
};

const KeyGroups& keyGroups()
{
    static const KeyGroups& groups = *new KeyGroups{
        {"",
         "the configuration itself",
         {"use_local_registry", "use_registry", "service_registry_locators", "backends", "serializer-formats",
          "services", "bypass", "smartProxy", "comm", "node_domain_mapping", "registry", "access"}},
        // The backend's, which reads them; not those that it refuses wherever they stand.
        {"comm",
         "\"comm\"",
         {"run_dir", "socket_mode", "socket_group", "routes", "max_message_bytes", "send_queue_bytes",
          "stream_window_bytes", "heartbeat_ms"}},
        {"services", "an entry of \"services\"", {"is_dynamic", "path", "version", "type", "locators"}},
        {"smartProxy",
         "\"smartProxy\"",
         {"timeout", "retryTimes", "mandatoryForwardErrors", "mandatroyRetryErrorsSubscribeList",
          "mandatroyRetryErrorsSubscribeElement"}},
        {"registry", "\"registry\"", {"max_user_bytes", "max_bytes", "policy"}}};
    return groups;
}

bool has(const Keys& keys, std::string_view key)
{
    return std::find(keys.begin(), keys.end(), key) != keys.end();
}

bool hasAny(const util::config::Value& object, const Keys& keys)
{
    return std::any_of(keys.begin(), keys.end(), [&object](std::string_view key) { return object[key].isDefined(); });
}

/// The one that a key which means nothing in `group` is of; null when it means nothing at all.
const KeyGroup* otherGroupOf(std::string_view key, const KeyGroup& group)
{
    for (const KeyGroup* const other : keyGroups().all()) {
        if (other != &group && has(other->keys, key)) {
            return other;
        }
    }
    return nullptr;
}

/// At the top level such a word may be a note, or of other software that shares the document.
bool mayBeNote(std::string_view key, const KeyGroup& group)
{
    return group.name.empty() && (key == "path" || key == "version" || key == "type" || key == "timeout");
}

/// A group that stands in itself once more.
void complainOfNested(const std::string& key, const ConfigNode& member, const KeyGroup& group, Severity severity)
{
    member.complain(severity, fmt::format("'{}' stands in {}, and nothing in it has an effect", key, group.place),
                    "move its members one level up");
}

void complainOfPlace(const std::string& key, const ConfigNode& member, const KeyGroup& group, const KeyGroup& meant)
{
    if (key == group.name) {
        complainOfNested(key, member, group, Severity::eWARNING);
        return;
    }
    const std::string place =
        meant.name.empty() ? fmt::format("beside \"{}\"", group.name) : fmt::format("in {}", meant.place);
    const bool isNote = mayBeNote(key, group);
    member.complain(isNote ? Severity::eHINT : Severity::eWARNING,
                    fmt::format("'{}' belongs {}, and has no effect here", key, place),
                    isNote ? "move it there, unless it is a note" : "move it there");
}

/// Whether the key stands for the member that holds the configuration: with other letters only if that is what it
/// holds, too.
bool isMeantAsWhole(std::string_view key, const util::config::Value& value)
{
    if (!value.isDictionary() || util::nearestName(key, {WHOLE}).empty()) {
        return false;
    }
    return util::nameDistance(key, WHOLE) == 0 || hasAny(value, keyGroups().root.keys);
}

/// When nothing else counts, neither does the document.
void complainOfWhole(const std::string& key, const ConfigNode& member, Severity severity)
{
    if (key == WHOLE) {
        complainOfNested(key, member, keyGroups().root, severity);
    } else {
        member.complain(severity, fmt::format("ignored, with everything in it: unknown key '{}'", key),
                        fmt::format("did you mean '{}'?", WHOLE));
    }
}

void complainOfName(const std::string& key, const ConfigNode& member, const KeyGroup& group)
{
    const std::string_view meant = util::nearestName(key, group.keys);
    std::string text = fmt::format("ignored: unknown key '{}'", util::config::shortenedKey(key));
    if (meant.empty()) {
        member.complain(Severity::eHINT, std::move(text), "correct or remove it, unless it is a note");
    } else {
        member.complain(Severity::eWARNING, std::move(text), fmt::format("did you mean '{}'?", meant));
    }
}

void addUnknown(const ConfigNode& object, const KeyGroup& group)
{
    bool hasEffect = !group.name.empty() || hasAny(object.value(), group.keys);
    for (const auto& [key, value] : object.value()) {
        if (has(group.keys, key)) {
            continue;
        }
        if (object.isOnlyCounted()) {
            object.complain(Severity::eHINT, {}, {});
        } else if (const KeyGroup* const meant = otherGroupOf(key, group)) {
            complainOfPlace(key, object[key], group, *meant);
        } else if (group.name.empty() && isMeantAsWhole(key, value)) {
            complainOfWhole(key, object[key], hasEffect ? Severity::eWARNING : Severity::eERROR);
            hasEffect = true; // one error is enough
        } else {
            complainOfName(key, object[key], group);
        }
    }
}

/// Of those that mean nothing anywhere the backend complains.
void addMisplacedInComm(const ConfigNode& comm)
{
    for (const auto& [key, value] : comm.value()) {
        if (isMisplacedInComm(key)) {
            complainOfPlace(key, comm[key], keyGroups().comm, *otherGroupOf(key, keyGroups().comm));
        }
    }
}

/// Locators at which nobody asks. Who wrote "false" may want that.
void addUnusedLocators(const ConfigNode& root)
{
    const ConfigNode locators = root["service_registry_locators"];
    const util::config::Value& flag = root.value()["use_registry"];
    bool isAsked = false;
    if ((flag.isDefined() && flag.get(isAsked)) || isAsked) {
        return; // what is no flag has been complained of
    }
    if (locators.size() > 0 || locators.value().begin() != locators.value().end()) {
        locators.complain(flag.isDefined() ? Severity::eHINT : Severity::eWARNING,
                          "have no effect without \"use_registry\": true: no registry is asked",
                          "write \"use_registry\": true, or remove the locators");
    }
}

} // namespace

bool isMisplacedInComm(std::string_view key)
{
    return otherGroupOf(key, keyGroups().comm) != nullptr;
}

void addUnknownKeys(const ConfigNode& root)
{
    addUnusedLocators(root);
    addUnknown(root, keyGroups().root);
    addMisplacedInComm(root["comm"]);
    const ConfigNode services = root["services"];
    for (std::size_t i = 0; i < services.size(); ++i) {
        addUnknown(services[i], keyGroups().services);
    }
    addUnknown(root["smartProxy"], keyGroups().smartProxy);
    addUnknown(root["registry"], keyGroups().registry);
}

std::vector<std::string> documentKeys()
{
    std::vector<std::string> keys(keyGroups().root.keys.begin(), keyGroups().root.keys.end());
    for (const std::string_view key : keyGroups().services.keys) {
        keys.push_back(fmt::format("services[].{}", key));
    }
    for (const KeyGroup* const group : {&keyGroups().smartProxy, &keyGroups().registry}) {
        for (const std::string_view key : group->keys) {
            keys.push_back(fmt::format("{}.{}", group->name, key));
        }
    }
    return keys;
}

} // namespace kesa::runtime::v02
