#include "rules/usersAndGroups.h"

#include <fmt/format.h>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <system_error>
#include <vector>

namespace kesa::access {

namespace {

template <class Number>
std::optional<Number> asNumber(const std::string& text)
{
    Number number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

/// False when there is no such entry. `texts` holds those of the entry.
template <class Key, class Entry>
bool find(int (*look)(Key, Entry*, char*, std::size_t, Entry**), Key key, Entry& entry, std::vector<char>& texts)
{
    Entry* found = nullptr;
    int error = 0;
    texts.resize(1024);
    while ((error = look(key, &entry, texts.data(), texts.size(), &found)) == ERANGE) {
        texts.resize(texts.size() * 2);
    }
    return error == 0 && found != nullptr;
}

} // namespace

std::string userName(uid_t number)
{
    std::array<char, 16384> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    const bool isKnown = ::getpwuid_r(number, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
    return isKnown ? found->pw_name : std::to_string(number);
}

std::string groupName(gid_t number)
{
    std::array<char, 16384> buffer{};
    group entry{};
    group* found = nullptr;
    const bool isKnown = ::getgrgid_r(number, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
    return isKnown ? found->gr_name : std::to_string(number);
}

std::optional<gid_t> findGroup(const std::string& name)
{
    if (const auto number = asNumber<gid_t>(name)) {
        return number;
    }
    group entry{};
    std::vector<char> texts;
    return find(::getgrnam_r, name.c_str(), entry, texts) ? std::optional(entry.gr_gid) : std::nullopt;
}

std::optional<uid_t> findUser(const std::string& name)
{
    if (const auto number = asNumber<uid_t>(name)) {
        return number;
    }
    passwd entry{};
    std::vector<char> texts;
    return find(::getpwnam_r, name.c_str(), entry, texts) ? std::optional(entry.pw_uid) : std::nullopt;
}

std::vector<uid_t> membersOf(gid_t number)
{
    group entry{};
    std::vector<char> texts;
    std::vector<uid_t> members;
    if (find(::getgrgid_r, number, entry, texts)) {
        for (char** name = entry.gr_mem; *name != nullptr; ++name) {
            if (const auto user = findUser(*name)) {
                members.push_back(*user);
            }
        }
    }
    return members;
}

std::optional<gid_t> groupOf(uid_t user)
{
    passwd entry{};
    std::vector<char> texts;
    return find(::getpwuid_r, user, entry, texts) ? std::optional(entry.pw_gid) : std::nullopt;
}

bool isPerson(uid_t user)
{
    constexpr uid_t FIRST_PERSON = 1000;
    return user >= FIRST_PERSON;
}

bool isSharedGroup(uid_t owner, gid_t group)
{
    return group != 0 && (group != owner || !isPerson(owner));
}

namespace {

/// Which others hardly shall join, whoever owns what has it.
bool isGroupOfOnePerson(gid_t group)
{
    const auto user = findUser(groupName(group));
    return user && isPerson(*user) && groupOf(*user) == group;
}

} // namespace

std::string adviseJoining(const std::string& path, mode_t bits)
{
    struct stat file {};
    if (::stat(path.c_str(), &file) != 0 || (file.st_mode & bits) == 0 || file.st_gid == ::getegid() ||
        ::group_member(file.st_gid) != 0 || isGroupOfOnePerson(file.st_gid)) {
        return {};
    }
    struct stat folder {};
    const std::string around = path.substr(0, path.rfind('/'));
    const bool isOfFolder = !S_ISDIR(file.st_mode) && ::stat(around.c_str(), &folder) == 0 &&
                            folder.st_gid == file.st_gid && (folder.st_mode & S_IWGRP) != 0 &&
                            isSharedGroup(folder.st_uid, folder.st_gid);
    return isOfFolder || isSharedGroup(file.st_uid, file.st_gid)
               ? fmt::format("add this user to the group \"{}\" and log in anew", groupName(file.st_gid))
               : std::string();
}

} // namespace kesa::access
