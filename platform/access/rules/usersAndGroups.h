#ifndef KESA_ACCESS_RULES_USERSANDGROUPS_H
#define KESA_ACCESS_RULES_USERSANDGROUPS_H

#include <obr/api.h>

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace kesa::access {

// Any thread.

/// The user's name, or the number where there is none that can be read.
KESA_API std::string userName(uid_t user);

/// The same of a group.
KESA_API std::string groupName(gid_t group);

/// The number of a group, given by its name or as a number; none when there is no such group.
KESA_API std::optional<gid_t> findGroup(const std::string& name);

/// The number of a user, given by its name or as a number; none when there is no such user.
KESA_API std::optional<uid_t> findUser(const std::string& name);

/// The users that are in a group beside those whose own group it is, as the list of groups has them.
KESA_API std::vector<uid_t> membersOf(gid_t group);

/// A user's own group; none when there is no such user.
KESA_API std::optional<gid_t> groupOf(uid_t user);

/// Whether a user is a person, not root or an account of a service.
KESA_API bool isPerson(uid_t user);

/// Whether a file's group is one that users may join: neither root's nor a person's own.
KESA_API bool isSharedGroup(uid_t owner, gid_t group);

/// What gives this user a right to a file that its group has: to join that. Empty where it does not help: the group
/// lacks `bits`, this user is in it, or it is none that users may join, as one person's own. A group that shares the
/// folder of the file is one.
KESA_API std::string adviseJoining(const std::string& path, mode_t bits);

} // namespace kesa::access

#endif
