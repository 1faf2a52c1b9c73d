#include "otherRunDirectories.h"

#include "nameHolders.h"
#include "processNames.h"

#include <backend/readCommSettings.h>
#include <rules/usersAndGroups.h>
#include <transport/chooseRunDirectory.h>
#include <util/shellWord.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <system_error>
#include <utility>

namespace kesactl {
namespace {

namespace transport = kesa::commadapter::transport;

/// Whose it is, where others might have made it to lead this user there; else empty.
std::string strangerOf(const std::string& directory)
{
    struct stat status {};
    const bool isStrange =
        ::stat(directory.c_str(), &status) == 0 && status.st_uid != 0 && status.st_uid != ::geteuid();
    return isStrange ? kesa::access::userName(status.st_uid) : "";
}

/// In which processes have names, those beside the one at `chosen` first: its name is perhaps a mistyped one of theirs.
std::vector<std::string> placesOfHolders(const std::string& chosen)
{
    std::set<std::string> found;
    for (const NameHolder& holder : findNameHolders()) {
        if (!holder.isLost) {
            found.insert(holder.directory);
        }
    }
    const auto inCommon = [&chosen](const std::string& place) {
        return std::mismatch(place.begin(), place.end(), chosen.begin(), chosen.end()).first - place.begin();
    };
    std::vector<std::string> places(found.begin(), found.end());
    std::stable_sort(places.begin(), places.end(), [&inCommon](const std::string& one, const std::string& other) {
        return inCommon(one) > inCommon(other);
    });
    return places;
}

std::vector<std::string> placesFor(const std::string& chosen)
{
    std::vector<std::string> places;
    const auto add = [&places](const char* variable, const char* below) {
        const char* const value = ::secure_getenv(variable);
        if (value != nullptr && *value != '\0') {
            places.push_back(std::string(value) + below);
        }
    };
    add("XDG_RUNTIME_DIR", "/kesa");
    add("KESA_RUN_DIR", "");
    places.emplace_back(transport::SYSTEM_RUN_DIRECTORY);
    std::error_code failed;
    for (const auto& user : std::filesystem::directory_iterator("/run/user", failed)) {
        places.push_back(user.path().string() + "/kesa");
    }
    for (std::string& place : placesOfHolders(chosen)) {
        places.push_back(std::move(place));
    }
    return places;
}

} // namespace

std::vector<RunDirectoryFacts> otherRunDirectories(const std::string& chosen)
{
    const RunDirectoryFacts own(chosen);
    std::vector<std::pair<dev_t, ino_t>> seen = {{own.device, own.inode}};
    std::vector<RunDirectoryFacts> others;
    for (const std::string& place : placesFor(chosen)) {
        RunDirectoryFacts other(place);
        const std::pair identity(other.device, other.inode);
        if (other.error == 0 && std::find(seen.begin(), seen.end(), identity) == seen.end()) {
            seen.push_back(identity);
            others.push_back(std::move(other));
        }
    }
    return others;
}

bool isHeld(const RunDirectoryFacts& directory, std::string_view process)
{
    return std::any_of(directory.names.begin(), directory.names.end(), [process](const auto& name) {
        return name.name == process && name.holder != 0 && !name.isLost;
    });
}

std::string howToMeetIn(const RunDirectoryFacts& directory)
{
    const auto settings = kesa::commadapter::readCommSettings();
    if (!settings.runDir.empty()) {
        return fmt::format(R"(write "run_dir": "{}" under "comm" in the configuration)", directory.path);
    }
    const bool isOfGroup = !directory.isWritable && directory.path == transport::SYSTEM_RUN_DIRECTORY;
    return isOfGroup ? fmt::format("add this user to the group \"{}\" and log in anew", directory.group)
                     : howToSet(directory.path);
}

std::string howToSet(const std::string& directory)
{
    const std::string stranger = strangerOf(directory);
    return fmt::format("{}set KESA_RUN_DIR={}",
                       stranger.empty() ? "" : fmt::format("if the user {} is trusted, ", stranger),
                       util::shellWord(directory));
}

std::vector<RunDirectoryFacts> otherDirectoriesOf(const std::string& process)
{
    std::vector<RunDirectoryFacts> others = otherRunDirectories(chosenRunDirectory());
    std::erase_if(others, [&process](const RunDirectoryFacts& other) { return !isHeld(other, process); });
    return others;
}

std::string holdersOf(const RunDirectoryFacts& directory, bool isLost)
{
    constexpr std::size_t MOST = 5;
    std::string text;
    std::size_t count = 0;
    for (const auto& name : directory.names) {
        if (name.holder != 0 && name.isLost == isLost && ++count <= MOST) {
            text += fmt::format("{}{} ({})", text.empty() ? "" : ", ", plainName(name.name), name.holder);
        }
    }
    return count > MOST ? fmt::format("{} and {} more", text, count - MOST) : text;
}

std::string namesOf(const std::vector<RunDirectoryFacts>& directories)
{
    constexpr std::size_t MOST = 3;
    std::string text;
    for (std::size_t i = 0; i < directories.size() && i < MOST; ++i) {
        const std::string stranger = strangerOf(directories[i].path);
        text += (i == 0 ? "" : " and in ") + directories[i].path +
                (stranger.empty() ? "" : fmt::format(" (of the user {})", stranger));
    }
    return text;
}

} // namespace kesactl
