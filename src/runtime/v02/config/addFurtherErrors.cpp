#include "addFurtherErrors.h"

#include "KesaConfig.h"

#include <kesa/mimetypes.h>

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>
#include <utility>

namespace kesa::runtime::v02 {
namespace {

using util::config::Dictionary;
using util::config::Value;
using Complaint = ConfigReport::Complaint;

/// Of readings, and of what is read altogether, since each reads the whole document; and of repairs, since each copies
/// what stands beside the value.
constexpr std::size_t MOST_READINGS = 50;
constexpr std::size_t MOST_BYTES = std::size_t{32} << 20U;
constexpr std::size_t MOST_REPAIRS = 200;

/// An element that no complaint is about, in a list somewhere under the key `top` of the document.
Value goodElement(std::string_view top)
{
    return top == "service_registry_locators" ? Value("ipc://check/registry")
           : top == "backends"                ? Value("comm")
           : top == "serializer-formats"      ? Value(mimetypes::JSON)
           : top == "services"                ? Value("ipc://check")
           : top == "bypass"                  ? Value("/check")
                                              : Value(1);
}

/// The same for a member; undefined for one that may be missing. `top` is empty for a key of the document itself.
Value goodMember(std::string_view top, std::string_view key)
{
    if (top == "serializer-formats" || (top.empty() && key == "serializer-formats")) {
        return Value::Array{Value(mimetypes::JSON)};
    }
    if (top != "services") {
        return {};
    }
    return key == "path"         ? Value("/check")
           : key == "type"       ? Value("pex")
           : key == "locators"   ? Value(Value::Array())
           : key == "is_dynamic" ? Value(true)
                                 : Value();
}

/// The key with which the path begins; keys may have any characters.
std::string firstKey(const Value& dictionary, std::string_view path)
{
    std::string found(path.substr(0, path.find_first_of(".[")));
    for (const auto& [key, value] : dictionary) {
        const std::string_view name = ConfigReport::shortened(key);
        const bool isNext = path.substr(0, name.size()) == name &&
                            (path.size() == name.size() || path[name.size()] == '.' || path[name.size()] == '[');
        if (isNext && key.size() >= found.size()) {
            found = key;
        }
    }
    return found;
}

/// `value` with something good at the path.
Value repaired(const Value& value, std::string_view path, const std::string& top)
{
    if (!path.empty() && path.front() == '[') {
        Value::Array elements = value.items();
        std::size_t index = 0;
        const auto end = std::from_chars(path.data() + 1, path.data() + path.size(), index).ptr;
        const std::string_view rest = path.substr(static_cast<std::size_t>(end - path.data()) + 1);
        if (index < elements.size()) {
            elements[index] = rest.empty() ? goodElement(top) : repaired(elements[index], rest, top);
        }
        return Value(std::move(elements));
    }
    if (!value.isDictionary()) {
        return Value(Dictionary{{"is_dynamic", true}}); // an entry of "services" that is no object, to be passed over
    }
    path.remove_prefix(!path.empty() && path.front() == '.' ? 1 : 0);
    const std::string key = firstKey(value, path);
    const std::string_view rest = path.substr(std::min(path.size(), ConfigReport::shortened(key).size()));
    const Value member = rest.empty() ? goodMember(top, key) : repaired(value[key], rest, top.empty() ? key : top);
    Dictionary members = value.dictionary();
    if (member.isDefined()) {
        members.set(key, member);
    } else {
        members.erase(key);
    }
    return Value(std::move(members));
}

/// Whether the reader has passed over something after it.
bool endsReading(const Complaint& complaint)
{
    constexpr std::string_view TOLERATED = "service_registry_locators";
    return complaint.isFatal || complaint.path.compare(0, TOLERATED.size(), TOLERATED) == 0;
}

/// With what was wrong replaced; a list is kept that is called wrong for an element that is.
Value repairedAll(Value root, const std::vector<Complaint>& complaints, std::size_t& repairs)
{
    for (const Complaint& complaint : complaints) {
        if (!endsReading(complaint) || repairs == MOST_REPAIRS) {
            continue;
        }
        const bool hasDeeper = std::any_of(complaints.begin(), complaints.end(), [&](const Complaint& other) {
            return other.isFatal && other.path.rfind(complaint.path + "[", 0) == 0;
        });
        if (!hasDeeper) {
            ++repairs;
            root = repaired(root, complaint.path, "");
        }
    }
    return root;
}

} // namespace

void addFurtherErrors(ConfigReport& report)
{
    if (!report.root.isDictionary()) {
        return;
    }
    std::set<std::pair<std::string, std::string>> known; // paths and texts
    std::vector<Complaint> complaints = report.complaints;
    for (Complaint& complaint : complaints) {
        known.emplace(complaint.path, complaint.text);
        complaint.path.erase(0, report.path("").size());
    }
    Value root = report.root;
    std::size_t bytes = 0;
    std::size_t repairs = 0;
    for (std::size_t readings = 0; readings < MOST_READINGS && bytes < MOST_BYTES && repairs < MOST_REPAIRS;
         ++readings) {
        Value next = repairedAll(root, complaints, repairs);
        if (next == root) {
            return;
        }
        root = std::move(next);
        const std::string text = root.toText();
        bytes += text.size();
        ConfigReport again;
        static_cast<void>(KesaConfig("", text, &again));
        for (const Complaint& complaint : again.complaints) {
            const std::string path = report.path(complaint.path);
            if (known.emplace(path, complaint.text).second) {
                report.complaints.push_back({complaint.severity, complaint.isFatal, path, complaint.text});
            }
        }
        complaints = std::move(again.complaints);
    }
    report.complaints.push_back({2, false, "", "there may be more errors; correct these first"});
}

} // namespace kesa::runtime::v02
