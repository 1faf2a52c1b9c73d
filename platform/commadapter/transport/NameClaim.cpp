// Only the holder of the lock touches `<process>.sock`: a socket left by a dead process is simply replaced. Where the
// sticky bit keeps each user's files his own, an empty file of the lock's owner takes its place at the end: into a gap
// anybody could put a file of his, and the next process of the name could not replace that; nor one of root's, which
// may have had the name in its user's stead.

#include "transport/NameClaim.h"

#include "transport/Authority.h"
#include "transport/NameLock.h"
#include "transport/drafts.h"
#include <rules/usersAndGroups.h>

#include <obr/explainError.h>
#include <util/config/Complaint.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <string>

namespace kesa::commadapter::transport {

namespace {

/// The kernel lowers it to its own limit.
constexpr int BACKLOG = 4096;
constexpr gid_t NO_GROUP = static_cast<gid_t>(-1); ///< the one that it has

/// On what stands where the socket belongs and cannot be replaced.
std::string adviseOnOccupied(int directory, const std::string& file, int error)
{
    struct stat status {};
    const bool isForbidden = error == EPERM || error == EACCES;
    return error == EISDIR ? "; remove it"
           : isForbidden && ::fstatat(directory, file.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0
               ? fmt::format("; it is {0}'s: have {0} or root remove it", access::userName(status.st_uid))
               : "";
}

} // namespace

std::string socketFileName(const std::string& process)
{
    return encodeProcessName(process) + ".sock";
}

NameClaim::NameClaim(Descriptor directory, const std::string& process)
    : m_directory(std::move(directory)), m_process(process), m_file(socketFileName(process))
{}

std::unique_ptr<NameClaim> NameClaim::take(Descriptor directory, const std::string& process,
                                           const IpcSettings& settings, std::string& why)
{
    std::unique_ptr<NameClaim> claim(new NameClaim(std::move(directory), process));
    if (claim->lock(why) || claim->listen(settings, why)) {
        return nullptr;
    }
    return claim;
}

std::unique_ptr<NameClaim> NameClaim::takeAgain(Descriptor directory, const IpcSettings& settings, std::string& why)
{
    std::unique_ptr<NameClaim> claim(new NameClaim(std::move(directory), m_process));
    const bool isHeld = isNameLockThere(claim->m_directory.get(), m_process, m_lock.get());
    if (isHeld) {
        claim->m_lock = std::move(m_lock);
    } else if (claim->lock(why)) {
        return nullptr;
    }
    if (claim->listen(settings, why)) {
        if (isHeld) {
            m_lock = std::move(claim->m_lock);
        }
        return nullptr;
    }
    return claim;
}

bool NameClaim::isRefused(const Descriptor& directory, const std::string& process, bool& isHeld, std::string& why)
{
    Descriptor lock;
    return takeNameLock(directory, process, lock, isHeld, why);
}

bool NameClaim::lock(std::string& why)
{
    bool isHeld = false;
    if (takeNameLock(m_directory, m_process, m_lock, isHeld, why)) {
        return true;
    }
    // For whoever is refused; the claim does not depend on it.
    const std::string pid = fmt::format("{}\n", ::getpid());
    if (::ftruncate(m_lock.get(), 0) == 0) {
        static_cast<void>(retryInterrupted([&] { return ::pwrite(m_lock.get(), pid.data(), pid.size(), 0); }));
    }
    return false;
}

/// The socket gets its rights under a name nobody looks for, and appears under its own when one can connect to it.
bool NameClaim::listen(const IpcSettings& settings, std::string& why)
{
    m_socket = Descriptor::open([] { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); });
    if (!m_socket) {
        why = fmt::format("cannot make a socket: {}", obr::explainError(errno));
        return true;
    }
    const std::string draft = bindDraft(why);
    if (draft.empty()) {
        return true;
    }
    bool failed = giveRights(draft, settings, why);
    struct stat status {};
    if (!failed && (::listen(m_socket.get(), BACKLOG) != 0 ||
                    ::fstatat(m_directory.get(), draft.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
                    ::renameat(m_directory.get(), draft.c_str(), m_directory.get(), m_file.c_str()) != 0)) {
        const int error = errno;
        why = fmt::format("cannot listen at \"{}\" in the run directory: {}{}", m_file, obr::explainError(error),
                          adviseOnOccupied(m_directory.get(), m_file, error));
        failed = true;
    }
    if (failed) {
        ::unlinkat(m_directory.get(), draft.c_str(), 0);
        return true;
    }
    m_device = status.st_dev;
    m_inode = status.st_ino;
    sweepDrafts(m_directory.get(), status);
    return false;
}

/// Answers its name; empty when it fails.
std::string NameClaim::bindDraft(std::string& why) const
{
    std::string draft = makeDraft(encodeProcessName(m_process), [this](const std::string& name) {
        // Through the directory's descriptor: a socket's address has 108 bytes, whatever the path of the directory has.
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = fmt::format("/proc/self/fd/{}/{}", m_directory.get(), name);
        path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
        return ::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0;
    });
    if (draft.empty()) {
        why = fmt::format("cannot bind the socket \"{}\" in the run directory: {}", m_file, obr::explainError(errno));
    }
    return draft;
}

bool NameClaim::giveRights(const std::string& draft, const IpcSettings& settings, std::string& why) const
{
    const auto refuse = [&](const char* what) {
        why = fmt::format("{} the socket \"{}\" in the run directory: {}", what, m_file, obr::explainError(errno));
        return true;
    };
    // Not by its name from here on: somebody might have put a link there, and what that leads to would get the mode.
    const auto bound =
        Descriptor::open([&] { return ::openat(m_directory.get(), draft.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC); });
    struct stat status {};
    if (!bound || ::fstat(bound.get(), &status) != 0) {
        return refuse("cannot look at");
    }
    if (!S_ISSOCK(status.st_mode) || status.st_uid != ::geteuid() || status.st_nlink != 1) {
        why = fmt::format("somebody has replaced the socket \"{}\" in the run directory", draft);
        return true;
    }
    if (!settings.socketGroup.empty()) {
        const auto group = access::findGroup(settings.socketGroup);
        if (!group) {
            why = fmt::format("there is no group \"{}\"; see \"socket_group\"",
                              util::config::excerpt(settings.socketGroup));
            return true;
        }
        if (::fchownat(bound.get(), "", static_cast<uid_t>(-1), *group, AT_EMPTY_PATH) != 0) {
            return refuse("cannot give its group to");
        }
    }
    if (::chmod(fmt::format("/proc/self/fd/{}", bound.get()).c_str(), settings.socketMode) != 0) {
        return refuse("cannot give its mode to");
    }
    return false;
}

bool NameClaim::isNameThere() const
{
    return isNameLockThere(m_directory.get(), m_process, m_lock.get());
}

void NameClaim::removeSocket() const
{
    struct stat folder {};
    struct stat lock {};
    const bool mayBeKeptOut = ::fstat(m_directory.get(), &folder) == 0 && (folder.st_mode & S_ISVTX) != 0 &&
                              ::fstat(m_lock.get(), &lock) == 0 && lock.st_uid != 0 && lock.st_uid != folder.st_uid;
    if (!mayBeKeptOut) {
        ::unlinkat(m_directory.get(), m_file.c_str(), 0);
        return;
    }
    std::string draft;
    const auto kept = makeDraftFile(m_directory.get(), encodeProcessName(m_process), S_IRUSR | S_IWUSR, draft);
    const bool isHis = kept && (lock.st_uid == ::geteuid() || ::fchown(kept.get(), lock.st_uid, NO_GROUP) == 0);
    if (kept && (!isHis || ::renameat(m_directory.get(), draft.c_str(), m_directory.get(), m_file.c_str()) != 0)) {
        ::unlinkat(m_directory.get(), draft.c_str(), 0); // the socket then keeps the place
    }
}

NameClaim::~NameClaim()
{
    if (!m_lock.isHere()) {
        return;
    }
    struct stat status {};
    if (m_inode != 0 && ::fstatat(m_directory.get(), m_file.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        isSocketFile(status)) {
        removeSocket();
    }
    m_socket.reset();
    static_cast<void>(::ftruncate(m_lock.get(), 0));
    // Explicitly: a child that is between `fork` and its first instruction still shares the lock.
    ::flock(m_lock.get(), LOCK_UN);
}

} // namespace kesa::commadapter::transport
