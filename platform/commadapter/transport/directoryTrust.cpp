#include "transport/directoryTrust.h"

#include <rules/usersAndGroups.h>

#include <util/shellWord.h>

#include <unistd.h>

#include <fmt/format.h>

namespace kesa::commadapter::transport {

namespace {

bool isForOthers(const struct stat& directory)
{
    const bool isForGroup =
        (directory.st_mode & S_IWGRP) != 0 && access::isSharedGroup(directory.st_uid, directory.st_gid);
    return isForGroup || (directory.st_mode & S_IWOTH) != 0;
}

/// Who could have made it for others to walk into.
bool isOfStranger(const struct stat& directory)
{
    const uid_t user = ::geteuid();
    const bool isTrusted = directory.st_uid == user || !access::isPerson(directory.st_uid);
    return !isTrusted && (user == 0 || (directory.st_mode & S_IWOTH) != 0);
}

} // namespace

DirectoryDistrust findDistrust(const std::string& path, const struct stat& directory)
{
    const uid_t user = ::geteuid();
    const std::string owner = access::userName(directory.st_uid);
    if (isOfStranger(directory)) {
        const std::string command = "chown root " + util::shellWord(path);
        return {fmt::format("belongs to {}, who can replace what this process makes there", owner),
                user == 0 ? command : "have root do: " + command};
    }
    if (isForOthers(directory) && (directory.st_mode & S_ISVTX) == 0) {
        const std::string command = "chmod +t " + util::shellWord(path);
        return {fmt::format("lets other users replace what this process makes there: it is {}'s, of the group \"{}\", "
                            "with the mode {:04o}",
                            owner, access::groupName(directory.st_gid), directory.st_mode & 07777U),
                user == 0 || user == directory.st_uid ? command : fmt::format("have {} do: {}", owner, command)};
    }
    return {};
}

} // namespace kesa::commadapter::transport
