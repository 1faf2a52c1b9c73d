#include "missingRight.h"

#include "otherRunDirectories.h"
#include "processNames.h"

#include <rules/usersAndGroups.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <vector>

namespace kesactl {
namespace {

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

} // namespace

std::string howToGetRight(const std::string& path, const std::string& otherwise, mode_t bits)
{
    std::string joining = kesa::access::adviseJoining(path, bits);
    return joining.empty() ? otherwise : joining;
}

std::string missingRight(std::int64_t pid, const kesa::url& locator)
{
    const std::string path = fmt::format("{}/{}.sock", chosenRunDirectory(), processOf(locator));
    struct stat socket {};
    if (locator.scheme() != "ipc" || ::stat(path.c_str(), &socket) != 0 || mayConnect(pid, socket)) {
        return {};
    }
    return fmt::format("its user may not connect to {}, which has the group \"{}\" and mode {:04o}", path,
                       kesa::access::groupName(socket.st_gid), socket.st_mode & 07777U);
}

} // namespace kesactl
