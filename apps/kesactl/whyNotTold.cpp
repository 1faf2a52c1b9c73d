#include "whyNotTold.h"

#include "ProcessFacts.h"
#include "RunDirectoryFacts.h"
#include "otherRunDirectories.h"

#include <kesa/url.h>
#include <transport/Authority.h>
#include <transport/usersAndGroups.h>
#include <util/config/Dictionary.h>
#include <util/nearestName.h>

#include <sys/stat.h>

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace kesactl {
namespace {

using util::config::Value;

/// Of a process that has asked the registry for nothing.
Verdict explainUnknown(const std::string& process)
{
    const RunDirectoryFacts facts(chosenRunDirectory());
    std::vector<std::string_view> names;
    for (const auto& name : facts.names) {
        if (name.holder == 0) {
            continue;
        }
        if (name.name != kesa::commadapter::transport::encodeProcessName(process)) {
            names.emplace_back(name.name);
            continue;
        }
        if (ProcessFacts(name.holder).isStopped) {
            return {"stopped",
                    fmt::format("{} (process {}) is stopped, and not connected to the registry", process, name.holder),
                    fmt::format("continue it with kill -CONT {}, or end its debugger", name.holder),
                    {}};
        }
        return {"not-asked",
                fmt::format("{} (process {}) has asked this registry for nothing", process, name.holder),
                "see with kesactl check-config --process what its document says of the registry and of its partition",
                {}};
    }
    const std::string_view meant = util::nearestName(process, names);
    return {"no-such-process",
            fmt::format("no process {} is known to the registry, or has its name in {}", process, facts.path),
            meant.empty()
                ? "start it; or it runs, asks for nothing and provides nothing: such a one is known by no name"
                : fmt::format("did you mean {}?", meant),
            {}};
}

/// The numbers behind a key of /proc/PID/status.
std::vector<std::uint64_t> numbersOf(std::int64_t pid, const std::string& key)
{
    std::vector<std::uint64_t> numbers;
    std::ifstream in(fmt::format("/proc/{}/status", pid));
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            std::istringstream words(line.substr(key.size()));
            for (std::uint64_t number = 0; words >> number;) {
                numbers.push_back(number);
            }
        }
    }
    return numbers;
}

/// Whether the user of a process may connect to a socket, by its mode. In doubt, yes.
bool mayConnect(std::int64_t pid, const struct stat& socket)
{
    const auto users = numbersOf(pid, "Uid:"); // real, effective, ...
    auto groups = numbersOf(pid, "Gid:");
    if (users.size() < 2 || users[1] == 0) {
        return true;
    }
    if (users[1] == socket.st_uid) {
        return (socket.st_mode & S_IWUSR) != 0;
    }
    const auto more = numbersOf(pid, "Groups:");
    groups.insert(groups.end(), more.begin(), more.end());
    const bool isMember = std::find(groups.begin(), groups.end(), socket.st_gid) != groups.end();
    return (socket.st_mode & (isMember ? S_IWGRP : S_IWOTH)) != 0;
}

/// Of a process that is told of the service.
Verdict explainTold(const Value& explanation, const std::string& process, std::int64_t pid)
{
    const kesa::url locator(explanation["holder"]["record"]["locators"][0].toText());
    const std::string path = fmt::format("{}/{}.sock", chosenRunDirectory(), processOf(locator));
    struct stat socket {};
    if (locator.scheme() == "ipc" && ::stat(path.c_str(), &socket) == 0 && !mayConnect(pid, socket)) {
        return {"rights",
                fmt::format("{} (process {}) is told of it, but its user may not connect to {}, which has the group "
                            "\"{}\" and mode {:04o}",
                            process, pid, path, kesa::commadapter::transport::groupName(socket.st_gid),
                            socket.st_mode & 07777U),
                "run it with that group, or set \"socket_group\" and \"socket_mode\" of the provider",
                {}};
    }
    return {std::string(Verdict::WORKS), fmt::format("the registry tells {} (process {}) of it", process, pid), {}, {}};
}

/// What the record has instead of the metadata that is asked for with `key`.
std::string explainKey(const Value& record, const std::string& key)
{
    const Value& metainfo = record["metainfo"];
    if (const Value& value = metainfo[key]; value.isDefined()) {
        return fmt::format("its query asks for another \"{}\" than the record's, which is {}", key, value.toText());
    }
    std::vector<std::string_view> keys;
    for (const auto& [name, value] : metainfo.dictionary()) {
        keys.emplace_back(name);
    }
    const std::string_view meant = util::nearestName(key, keys);
    return fmt::format("its query asks for \"{}\", which the record does not have{}", key,
                       meant.empty() ? "" : fmt::format("; did you mean \"{}\"?", meant));
}

std::string adviceFor(const Value& ask, const Value& record)
{
    const std::string_view because = ask["because"].stringView();
    if (ask["key"].isString()) {
        return explainKey(record, ask["key"].toText());
    }
    if (because == "scope") {
        return "its query asks for a scope that the record does not list; kesactl show PATH has the record";
    }
    if (because == "metadata") {
        return "its query asks for metadata that the record does not have; kesactl show PATH has the record";
    }
    return "all locators of the record are of another run directory than the one it uses";
}

} // namespace

Verdict explainProcess(const Value& explanation, const std::string& process, const std::string& path)
{
    const Value& about = explanation["for"];
    const auto& asks = about["asks"].items();
    if (about["known"] != true) {
        return explainUnknown(process);
    }
    if (asks.empty() && explanation["holder"]["provider"] == Value(process)) {
        return {std::string(Verdict::WORKS),
                fmt::format("{} provides it itself, so it uses it without asking the registry", process),
                {},
                {}};
    }
    if (asks.empty()) {
        return {"not-asked",
                fmt::format("{} asks the registry for nothing that {} would be: for other services, or for none",
                            process, path),
                "compare the paths and patterns that it tracks, letter by letter",
                {}};
    }
    const auto told = std::find_if(asks.begin(), asks.end(), [](const Value& ask) { return ask["told"] == true; });
    const Value& ask = told == asks.end() ? asks.front() : *told;
    const std::int64_t pid = integerOf(ask["pid"]);
    if (ProcessFacts(static_cast<pid_t>(pid)).isStopped) {
        return {"stopped",
                fmt::format("{} (process {}) is stopped", process, pid),
                fmt::format("continue it with kill -CONT {}, or end its debugger", pid),
                {}};
    }
    if (told != asks.end()) {
        return explainTold(explanation, process, pid);
    }
    const std::string because = ask["because"].toText();
    return {"hidden-by-" + because,
            fmt::format("{} (process {}) asks for it{}, but is not told of it because of its {}", process, pid,
                        ask["pattern"].isString() ? fmt::format(" with \"{}\"", ask["pattern"].toText()) : "", because),
            adviceFor(ask, explanation["holder"]["record"]),
            {}};
}

void addUnseen(Verdict& verdict, const std::string& process, const Unseen& unseen)
{
    if (unseen.text.empty() || verdict.cause == "stopped" || verdict.cause == "no-such-process") {
        return;
    }
    const std::string text = fmt::format("whether a handler holds {} cannot be seen: {}", process, unseen.text);
    if (verdict.isGood()) {
        verdict.text += "; " + text;
        verdict.advice = unseen.advice;
    } else {
        verdict.notes.push_back(text + (unseen.advice.empty() ? "" : "; " + unseen.advice));
    }
}

} // namespace kesactl
