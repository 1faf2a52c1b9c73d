#include "backend/readCommSettings.h"

#include "transport/Authority.h"

#include <kesa/Path.h>
#include <kesa/commadapter/checkCommSettings.h>
#include <kesa/url.h>
#include <obr/ErrorStorage.h>
#include <util/config/Provider.h>
#include <util/nearestName.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace kesa::commadapter {

namespace {

using util::config::Complaint;
using util::config::Value;
using Complaints = std::vector<Complaint>;

/// One member of "comm", whose faults become complaints.
class Setting {
public:
    Setting(std::string_view key, const Value& value, CommFaults& faults) noexcept
        : m_key(key), m_value(value), m_faults(faults)
    {}

    const Value& value() const noexcept { return m_value; }
    bool isOnlyCounted() const noexcept { return m_faults.isFull(); }

    void complain(std::string text, std::string advice, std::string_view keyBelow = {}) const
    {
        if (isOnlyCounted()) {
            ++m_faults.unlisted;
            return;
        }
        util::config::DocumentPath path{"comm", std::string(util::config::shortenedKey(m_key))};
        if (!keyBelow.empty()) {
            path.emplace_back(std::string(util::config::shortenedKey(keyBelow)));
        }
        m_faults.complaints.push_back(
            {Complaint::Severity::eWARNING, std::move(path), std::move(text), std::move(advice)});
    }
    void refuse(std::string advice) const
    {
        complain(fmt::format("\"{}\" is {}", m_key, util::config::quoted(m_value)), std::move(advice));
    }

    template <class T>
    void readNumber(std::uint64_t least, std::uint64_t most, T& out) const
    {
        std::uint64_t number = 0;
        if (m_value.get(number) || number < least || number > most) {
            refuse(fmt::format("write a whole number from {} to {}", least, most));
            return;
        }
        out = static_cast<T>(number);
    }

private:
    const std::string_view m_key;
    const Value& m_value;
    CommFaults& m_faults;
};

/// The system would take what stands before it.
bool hasNul(std::string_view name) noexcept
{
    return name.find('\0') != std::string_view::npos;
}

void readRunDir(const Setting& setting, CommSettings& settings)
{
    const std::string_view directory = setting.value().stringView();
    if (directory.empty() || directory.front() != '/' || hasNul(directory)) {
        setting.refuse("write the absolute path of a folder");
        return;
    }
    settings.runDir = directory;
}

void readSocketMode(const Setting& setting, CommSettings& settings)
{
    const std::string_view text = setting.value().stringView();
    unsigned mode = 0;
    bool isOctal = text.size() == 3 || (text.size() == 4 && text.front() == '0');
    for (const char c : text) {
        isOctal = isOctal && c >= '0' && c <= '7';
        mode = mode * 8 + static_cast<unsigned>(c - '0');
    }
    if (!isOctal) {
        setting.refuse("write the rights of the socket as a string of octal digits, such as \"0660\"");
        return;
    }
    settings.socketMode = mode;
}

/// Whether a route may lead there: to a process, or to a path below it.
bool isDestination(const url& locator)
{
    return locator.isAbsolute() && !locator.hasQueryOrFragment() &&
           (locator.path().empty() || Path::isCanonical(locator.path())) &&
           (locator.scheme() != "ipc" || transport::parseProcessAuthority(locator, "ipc"));
}

void readRoutes(const Setting& setting, CommSettings& settings)
{
    if (!setting.value().isDictionary()) {
        setting.complain("\"routes\" is no object", "write {\"/path\": \"ipc://process/path\"}");
        return;
    }
    for (const auto& [path, target] : setting.value()) {
        const url locator{std::string(target.stringView())};
        if (!Path::isCanonical(path) || !isDestination(locator)) {
            setting.complain(
                fmt::format("the route {}: {} is left out", util::config::quoted(path), util::config::quoted(target)),
                "write a path and a locator such as \"/registry\" and "
                "\"ipc://kesa-registryd/registry\", neither with '/' at its end, and without a query",
                path);
            continue;
        }
        settings.routes.insert_or_assign(path, locator.toString());
    }
}

void readHeartbeat(const Setting& setting, CommSettings& settings)
{
    comm::TimeNs milliseconds = settings.heartbeat / comm::MILLISECOND;
    setting.readNumber(10, 3'600'000, milliseconds);
    settings.heartbeat = milliseconds * comm::MILLISECOND;
}

struct Member {
    std::string_view key;
    void (*read)(const Setting& setting, CommSettings& settings); ///< null: reserved
};

/// Advice of a key like none of these, perhaps of another object: the runtime says where it belongs.
constexpr const char* LIKE_NOTHING = "correct or remove it";

/// Of those that a process tells.
constexpr std::size_t MOST_SENTENCES = 10;

constexpr std::uint64_t SMALLEST_LIMIT = 64U << 10U;
constexpr std::uint64_t SMALLEST_WINDOW = 4U << 10U;
constexpr std::uint64_t LARGEST_LIMIT = 1U << 30U;

constexpr std::array MEMBERS = {
    Member{"run_dir", readRunDir},
    Member{"socket_mode", readSocketMode},
    Member{"socket_group",
           [](const Setting& setting, CommSettings& settings) {
               if (!setting.value().isString() || hasNul(setting.value().stringView())) {
                   setting.refuse("write the name of a group");
                   return;
               }
               settings.socketGroup = setting.value().stringView();
           }},
    Member{"routes", readRoutes},
    Member{"max_message_bytes",
           [](const Setting& setting, CommSettings& settings) {
               setting.readNumber(SMALLEST_LIMIT, LARGEST_LIMIT, settings.maxMessageBytes);
           }},
    Member{"send_queue_bytes",
           [](const Setting& setting, CommSettings& settings) {
               setting.readNumber(SMALLEST_LIMIT, LARGEST_LIMIT, settings.sendQueueBytes);
           }},
    Member{"stream_window_bytes",
           [](const Setting& setting, CommSettings& settings) {
               setting.readNumber(SMALLEST_WINDOW, LARGEST_LIMIT, settings.streamWindow);
           }},
    Member{"heartbeat_ms", readHeartbeat},
    Member{"listen", nullptr},
    Member{"advertise", nullptr},
    Member{"tls", nullptr},
    Member{"insecure", nullptr},
};

void complainOfUnknown(const std::string& key, const Setting& setting)
{
    if (setting.isOnlyCounted()) {
        setting.complain({}, {});
        return;
    }
    std::vector<std::string_view> known;
    for (const Member& member : MEMBERS) {
        known.push_back(member.key);
    }
    const std::string_view meant = util::nearestName(key, known);
    setting.complain(fmt::format("\"{}\" is unknown and has no effect", util::config::shortenedKey(key)),
                     meant.empty() ? LIKE_NOTHING : fmt::format("did you mean \"{}\"?", meant));
}

Complaints& allOf(CommFaults& faults)
{
    if (faults.unlisted > 0) {
        faults.complaints.push_back({Complaint::Severity::eWARNING,
                                     {"comm"},
                                     fmt::format("{} more faults are not listed", faults.unlisted),
                                     "correct these first"});
    }
    return faults.complaints;
}

} // namespace

CommSettings readCommSettings(const Value& comm, CommFaults& faults, CommSettings settings)
{
    if (!comm.isDefined()) {
        return settings;
    }
    if (!comm.isDictionary()) {
        faults.complaints.push_back({Complaint::Severity::eWARNING,
                                     {"comm"},
                                     "\"comm\" is no object",
                                     "write {\"run_dir\": \"/run/kesa\"} or leave it out"});
        return settings;
    }
    for (const auto& [key, value] : comm) {
        const Setting setting(key, value, faults);
        const auto* const known = std::find_if(MEMBERS.begin(), MEMBERS.end(),
                                               [&key = key](const Member& member) { return member.key == key; });
        if (known == MEMBERS.end()) {
            complainOfUnknown(key, setting);
        } else if (known->read == nullptr) {
            setting.complain(fmt::format("\"{}\" is not supported yet: processes are reached over \"ipc\" only", key),
                             "leave it out");
        } else {
            known->read(setting, settings);
        }
    }
    return settings;
}

CommSettings readCommSettings(std::vector<std::string>* sentences, const CommSettings& defaults)
{
    const util::config::Provider provider("kesa", "./config", 0, util::config::LoadStrategy::eFIRST_FOUND);
    if (provider.hasFailed()) {
        obr::ErrorStorage::ack();
    }
    const bool isMember = provider.first().isDefined();
    const Value& root = isMember ? provider.first() : provider.second();
    CommFaults faults{MOST_SENTENCES};
    CommSettings settings = readCommSettings(root["comm"], faults, defaults);
    if (!provider.file().empty()) {
        std::error_code failed;
        settings.document = std::filesystem::absolute(provider.file(), failed).string();
    }
    if (sentences != nullptr) {
        for (Complaint& complaint : allOf(faults)) {
            if (complaint.advice == LIKE_NOTHING) {
                continue;
            }
            if (isMember) {
                complaint.path.insert(complaint.path.begin(), "kesa");
            }
            sentences->push_back(complaint.sentence(provider.file()));
        }
    }
    return settings;
}

Complaints checkCommSettings(const Value& comm)
{
    CommFaults faults;
    static_cast<void>(readCommSettings(comm, faults));
    return allOf(faults);
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
