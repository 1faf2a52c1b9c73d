#include "transport/usersAndGroups.h"

#include <grp.h>
#include <pwd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <system_error>
#include <vector>

namespace kesa::commadapter::transport {

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
    gid_t number = 0;
    const auto parsed = std::from_chars(name.data(), name.data() + name.size(), number);
    if (parsed.ec == std::errc() && parsed.ptr == name.data() + name.size()) {
        return number;
    }
    std::vector<char> buffer(1024);
    group entry{};
    group* found = nullptr;
    int error = 0;
    while ((error = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    return error == 0 && found != nullptr ? std::optional(found->gr_gid) : std::nullopt;
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

} // namespace kesa::commadapter::transport
