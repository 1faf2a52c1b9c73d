#include "backend/readCommSettings.h"

#include <kesa/Path.h>
#include <kesa/commadapter/checkCommSettings.h>
#include <kesa/url.h>
#include <obr/ErrorStorage.h>
#include <util/config/Provider.h>
#include <util/nearestName.h>

#include <fmt/format.h>

#include <array>
#include <functional>
#include <limits>
#include <string_view>

namespace kesa::commadapter {

namespace {

using util::config::Value;
using Complaints = std::vector<std::string>;

/// Reads the one member it is given into the settings.
using ReadMember = void (*)(const Value& value, CommSettings& settings, Complaints& complaints);

struct Member {
    std::string_view key;
    ReadMember read;
};

void readString(std::string_view key, const Value& value, std::string& out, Complaints& complaints)
{
    if (value.get(out)) {
        complaints.push_back(fmt::format("\"comm\": \"{}\" is {}; write a string", key, value.toText()));
    }
}

template <class T>
void readNumber(std::string_view key, const Value& value, std::uint64_t least, std::uint64_t most, T& out,
                Complaints& complaints)
{
    std::uint64_t number = 0;
    if (value.get(number) || number < least || number > most) {
        complaints.push_back(fmt::format("\"comm\": \"{}\" is {}; write a whole number from {} to {}", key,
                                         value.toText(), least, most));
        return;
    }
    out = static_cast<T>(number);
}

void readRunDir(const Value& value, CommSettings& settings, Complaints& complaints)
{
    std::string directory;
    if (value.get(directory) || directory.empty() || directory.front() != '/') {
        complaints.push_back(
            fmt::format("\"comm\": \"run_dir\" is {}; write the absolute path of a folder", value.toText()));
        return;
    }
    settings.runDir = directory;
}

void readSocketMode(const Value& value, CommSettings& settings, Complaints& complaints)
{
    const std::string_view text = value.stringView();
    unsigned mode = 0;
    bool isOctal = text.size() == 3 || (text.size() == 4 && text.front() == '0');
    for (const char c : text) {
        isOctal = isOctal && c >= '0' && c <= '7';
        mode = mode * 8 + static_cast<unsigned>(c - '0');
    }
    if (!isOctal) {
        complaints.push_back(fmt::format("\"comm\": \"socket_mode\" is {}; write the rights of the socket as a string "
                                         "of octal digits, such as \"0660\"",
                                         value.toText()));
        return;
    }
    settings.socketMode = mode;
}

void readRoutes(const Value& value, CommSettings& settings, Complaints& complaints)
{
    if (!value.isDictionary()) {
        complaints.push_back("\"comm\": \"routes\" is no object; write {\"/path\": \"ipc://process/path\"}");
        return;
    }
    for (const auto& [path, target] : value) {
        const url locator{std::string(target.stringView())};
        const bool leadsNowhere = !locator.isAbsolute() || locator.hasQueryOrFragment() ||
                                  !(locator.path().empty() || Path::isCanonical(locator.path()));
        if (!Path::isCanonical(path) || leadsNowhere) {
            complaints.push_back(
                fmt::format("\"comm\": the route \"{}\": {} is left out; write a path and a locator such "
                            "as \"/registry\" and \"ipc://kesa-registryd/registry\", neither with '/' "
                            "at its end, and without a query",
                            path, target.toText()));
            continue;
        }
        settings.routes.insert_or_assign(path, locator.toString());
    }
}

void refuse(std::string_view key, Complaints& complaints)
{
    complaints.push_back(fmt::format("\"comm\": \"{}\" is not supported yet: processes are reached over \"ipc\" only; "
                                     "leave it out",
                                     key));
}

constexpr std::array MEMBERS = {
    Member{"run_dir", readRunDir},
    Member{"socket_mode", readSocketMode},
    Member{"socket_group",
           [](const Value& value, CommSettings& settings, Complaints& complaints) {
               readString("socket_group", value, settings.socketGroup, complaints);
           }},
    Member{"routes", readRoutes},
    Member{"max_message_bytes",
           [](const Value& value, CommSettings& settings, Complaints& complaints) {
               readNumber("max_message_bytes", value, 64U << 10U, 1U << 30U, settings.maxMessageBytes, complaints);
           }},
    Member{"send_queue_bytes",
           [](const Value& value, CommSettings& settings, Complaints& complaints) {
               readNumber("send_queue_bytes", value, 64U << 10U, 1U << 30U, settings.sendQueueBytes, complaints);
           }},
    Member{"heartbeat_ms",
           [](const Value& value, CommSettings& settings, Complaints& complaints) {
               comm::TimeNs milliseconds = settings.heartbeat / comm::MILLISECOND;
               readNumber("heartbeat_ms", value, 10, 3'600'000, milliseconds, complaints);
               settings.heartbeat = milliseconds * comm::MILLISECOND;
           }},
    Member{"listen", [](const Value&, CommSettings&, Complaints& complaints) { refuse("listen", complaints); }},
    Member{"advertise", [](const Value&, CommSettings&, Complaints& complaints) { refuse("advertise", complaints); }},
    Member{"tls", [](const Value&, CommSettings&, Complaints& complaints) { refuse("tls", complaints); }},
    Member{"insecure", [](const Value&, CommSettings&, Complaints& complaints) { refuse("insecure", complaints); }},
};

std::string complaintOfUnknown(const std::string& key)
{
    std::vector<std::string_view> known;
    for (const Member& member : MEMBERS) {
        known.push_back(member.key);
    }
    const std::string_view meant = util::nearestName(key, known);
    return fmt::format("\"comm\": \"{}\" is unknown and has no effect; {}", key,
                       meant.empty() ? "correct or remove it" : fmt::format("did you mean \"{}\"?", meant));
}

} // namespace

CommSettings readCommSettings(const Value& comm, Complaints& complaints)
{
    CommSettings settings;
    if (!comm.isDefined()) {
        return settings;
    }
    if (!comm.isDictionary()) {
        complaints.push_back("\"comm\" is no object; write {\"run_dir\": \"/run/kesa\"} or leave it out");
        return settings;
    }
    for (const auto& [key, value] : comm) {
        const Member* known = nullptr;
        for (const Member& member : MEMBERS) {
            known = member.key == key ? &member : known;
        }
        if (known != nullptr) {
            known->read(value, settings, complaints);
        } else {
            complaints.push_back(complaintOfUnknown(key));
        }
    }
    return settings;
}

CommSettings readCommSettings(Complaints& complaints)
{
    const util::config::Provider provider("kesa", "./config", 0, util::config::LoadStrategy::eFIRST_FOUND);
    if (provider.hasFailed()) {
        obr::ErrorStorage::ack();
    }
    const Value& root = provider.first().isDefined() ? provider.first() : provider.second();
    CommSettings settings = readCommSettings(root["comm"], complaints);
    for (std::string& complaint : complaints) {
        complaint.insert(0, provider.file() + ": ");
    }
    return settings;
}

std::vector<std::string> checkCommSettings(const Value& comm)
{
    Complaints complaints;
    static_cast<void>(readCommSettings(comm, complaints));
    return complaints;
}

std::vector<std::string> commSettingKeys()
{
    std::vector<std::string> keys;
    for (const Member& member : MEMBERS) {
        keys.emplace_back(member.key);
    }
    return keys;
}

} // namespace kesa::commadapter
