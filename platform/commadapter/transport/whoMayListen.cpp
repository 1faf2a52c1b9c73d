#include "transport/whoMayListen.h"

#include "transport/NameClaim.h"
#include "transport/NameLock.h"
#include <rules/usersAndGroups.h>

#include <obr/visible.h>

#include <fmt/format.h>

#include <cstdint>

namespace kesa::commadapter::transport {

namespace {

std::string complaintAboutMaker(const std::string& path, const struct stat& file, const PeerIdentity& listener)
{
    const auto user = static_cast<uid_t>(listener.uid);
    return fmt::format(
        "the socket \"{}\" is of the user \"{}\", and process {}, which listens on it, of the user \"{}\"; "
        "end that one, and start the one that is meant anew",
        obr::visible(path), access::userName(file.st_uid), listener.pid, access::userName(user));
}

std::string complaintAboutName(const std::string& directory, const std::string& process, const PeerIdentity& listener)
{
    struct stat folder {};
    struct stat lock {};
    const std::string file = directory + '/' + nameLockFile(process);
    if (::stat(directory.c_str(), &folder) != 0 || (folder.st_mode & S_ISVTX) == 0 ||
        ::lstat(file.c_str(), &lock) != 0 || !S_ISREG(lock.st_mode) || listener.uid == std::int64_t{lock.st_uid}) {
        return {};
    }
    const std::string owner = access::userName(lock.st_uid);
    return fmt::format("the name \"{}\" is of the user \"{}\", whose lock file is there, and process {}, which listens "
                       "by it, of the user \"{}\"; end that one and remove its socket, or, to give it the name, "
                       "have {} remove \"{}\"",
                       obr::visible(process), owner, listener.pid, access::userName(static_cast<uid_t>(listener.uid)),
                       owner, obr::visible(file));
}

} // namespace

std::string complaintAboutListener(const std::string& directory, const std::string& process, const struct stat& socket,
                                   const PeerIdentity& listener)
{
    return listener.uid == 0 ? std::string()
           : listener.uid != std::int64_t{socket.st_uid}
               ? complaintAboutMaker(directory + '/' + socketFileName(process), socket, listener)
               : complaintAboutName(directory, process, listener);
}

} // namespace kesa::commadapter::transport
