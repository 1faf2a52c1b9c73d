#include "transport/RunDirectory.h"

#include "transport/Authority.h"
#include "transport/directoryTrust.h"
#include "transport/drafts.h"
#include <rules/usersAndGroups.h>

#include <obr/explainError.h>
#include <obr/visible.h>
#include <util/config/Complaint.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace kesa::commadapter::transport {

namespace {

constexpr const char* NAME_ANOTHER = R"(name another one with "run_dir" or KESA_RUN_DIR)";

// 0755: others may look names up; who may connect is decided by each socket's own mode and group. A directory in which
// several users provide services is made by the administrator, with the rights they share.
constexpr mode_t DIRECTORY_MODE = 0755;
constexpr mode_t REALM_MODE = 0644;

std::string makeAbsolute(const std::string& path)
{
    std::error_code ignored;
    std::string absolute = std::filesystem::absolute(path, ignored).string();
    while (absolute.size() > 1 && absolute.back() == '/') {
        absolute.pop_back();
    }
    return absolute;
}

std::string shown(const std::string& path)
{
    return obr::visible(util::config::excerpt(path));
}

bool isRealm(std::string_view text)
{
    return text.size() == 16 && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

/// What lets this user write into a directory.
std::string adviseRights(const std::string& directory)
{
    struct stat status {};
    if (::stat(directory.c_str(), &status) != 0) {
        return "have it made for this user";
    }
    const std::string joining = access::adviseJoining(directory, S_IWGRP);
    return joining.empty() ? "make it writable for this process" : joining;
}

/// What helps against `error`.
std::string advise(const std::string& directory, int error)
{
    namespace fs = std::filesystem;
    const fs::path around = fs::path(directory).parent_path();
    struct stat status {};
    std::string here; // before naming another one
    switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        return obr::adviseOnShortage(error);
    case EACCES:
    case EPERM:
        here = adviseRights(directory) + ", or ";
        break;
    case ENOENT:
        here = ::stat(around.c_str(), &status) == 0 ? "" : fmt::format("make \"{}\", or ", shown(around.string()));
        break;
    case ENOSPC:
    case EDQUOT:
        here = "make room there, or ";
        break;
    case ENOTDIR: {
        fs::path file = directory;
        while (::stat(file.c_str(), &status) != 0 && errno == ENOTDIR) {
            file = file.parent_path();
        }
        here = fmt::format("\"{}\" is a file; ", shown(file.string()));
        break;
    }
    default:
        break;
    }
    return here + NAME_ANOTHER;
}

/// Writes a file of its own and calls `place`, which gives it the name: nobody reads half a realm.
template <class Place>
bool writeRealm(int directory, const std::string& realm, Place place)
{
    const std::string content = realm + '\n';
    std::string draft;
    const Descriptor file = makeDraftFile(directory, "realm", REALM_MODE, draft);
    if (!file) {
        return true;
    }
    const bool isWritten = ::fchmod(file.get(), REALM_MODE) == 0 &&
                           retryInterrupted([&] { return ::write(file.get(), content.data(), content.size()); }) ==
                               static_cast<ssize_t>(content.size()) &&
                           retryInterrupted([&] { return ::fsync(file.get()); }) == 0 && place(draft.c_str());
    const int error = errno;
    ::unlinkat(directory, draft.c_str(), 0);
    errno = error;
    return !isWritten;
}

/// The first one to link has won.
bool makeRealmFile(int directory, const std::string& realm)
{
    return writeRealm(directory, realm, [directory](const char* name) {
        return ::linkat(directory, name, directory, RunDirectory::REALM_FILE, 0) == 0 || errno == EEXIST;
    });
}

/// Who was here first may be any user, and could change the file under all others: it becomes that of who may do all in
/// the directory as soon as he comes. The realm stays.
void adoptRealm(int directory, const RealmFile& file)
{
    struct stat folder {};
    const uid_t user = ::geteuid();
    const uid_t owner = file.status.st_uid;
    if (::fstat(directory, &folder) != 0 || owner == user || owner == 0 || owner == folder.st_uid ||
        (user != 0 && user != folder.st_uid)) {
        return;
    }
    static_cast<void>(writeRealm(directory, file.realm, [directory](const char* name) {
        return ::renameat(directory, name, directory, RunDirectory::REALM_FILE) == 0;
    }));
}

} // namespace

RealmFile readRealmFile(int directory)
{
    const auto file = openFile(
        [&] { return ::openat(directory, RunDirectory::REALM_FILE, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK); });
    if (!file) {
        const bool isNoFile = errno == ELOOP || errno == ENXIO; // a link or a socket
        return {isNoFile ? 0 : errno, {}, {}};
    }
    std::array<char, 64> buffer;
    const ssize_t size = retryInterrupted([&] { return ::read(file.get(), buffer.data(), buffer.size()); });
    std::string_view text(buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    if (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    RealmFile found{0, std::string(isRealm(text) ? text : ""), {}};
    if (::fstat(file.get(), &found.status) != 0 || !S_ISREG(found.status.st_mode)) {
        found.realm.clear();
    }
    return found;
}

RunDirectory::RunDirectory(const std::string& configured) : RunDirectory(chooseRunDirectory(configured)) {}

RunDirectory::RunDirectory(const RunDirectoryChoice& choice)
    : m_source(choice.source), m_path(makeAbsolute(choice.path))
{}

std::string RunDirectory::shownPath() const
{
    return shown(m_path);
}

bool RunDirectory::lacksRealm() const
{
    const std::string file = m_path + '/' + REALM_FILE;
    return ::access(file.c_str(), F_OK) != 0 && errno == ENOENT;
}

bool RunDirectory::isDistrusted(int directory, std::string& why) const
{
    struct stat status {};
    if (::fstat(directory, &status) != 0 || ::faccessat(directory, ".", W_OK | X_OK, AT_EACCESS) != 0) {
        return false; // nothing is made there, and what is missing is said first
    }
    const DirectoryDistrust distrust = findDistrust(m_path, status);
    if (distrust.text.empty()) {
        return false;
    }
    why = fmt::format("the run directory \"{}\" {}; {}, or {}", shown(m_path), distrust.text,
                      obr::visible(distrust.advice), NAME_ANOTHER);
    return true;
}

bool RunDirectory::prepare(Descriptor& directory, std::string& realm, std::string& why)
{
    const auto refuse = [&](const char* what) {
        const int error = errno;
        why = fmt::format("{} the run directory \"{}\": {}; {}", what, shown(m_path),
                          std::system_category().message(error), advise(m_path, error));
        return true;
    };
    const int makeError = ::mkdir(m_path.c_str(), DIRECTORY_MODE) == 0 ? 0 : errno;
    auto opened = openFile([&] { return ::open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (!opened) {
        const bool isMissing = errno == ENOENT;
        errno = isMissing ? makeError : errno;
        return refuse(isMissing ? "cannot make" : "cannot open");
    }
    if (isDistrusted(opened.get(), why)) {
        return true;
    }
    RealmFile file = readRealmFile(opened.get());
    if (file.error == ENOENT) {
        if (makeRealmFile(opened.get(), realm.empty() ? makeRealm() : realm)) {
            return refuse("cannot write into");
        }
        file = readRealmFile(opened.get());
    }
    if (file.realm.empty()) {
        const std::string name = shown(m_path) + '/' + REALM_FILE;
        why = file.error == 0
                  ? fmt::format("the file \"{}\" does not hold 16 hex digits; remove it when no process uses "
                                "the directory",
                                name)
                  : fmt::format("cannot read the file \"{}\": {}; {}", name, std::system_category().message(file.error),
                                file.error == EACCES ? fmt::format("give it the mode {:04o}", REALM_MODE)
                                                     : advise(m_path, file.error));
        return true;
    }
    if (::faccessat(opened.get(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
        return refuse("cannot write into");
    }
    adoptRealm(opened.get(), file);
    const std::lock_guard lock(m_mutex);
    m_realm = file.realm;
    realm = file.realm;
    directory = std::move(opened);
    return false;
}

void RunDirectory::makeAgain(int former) const
{
    struct stat status {};
    if (::fstat(former, &status) != 0 || ::mkdir(m_path.c_str(), S_IRWXU) != 0) {
        return;
    }
    const auto made = openFile([&] { return ::open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
    const uid_t owner = ::geteuid() == 0 ? status.st_uid : static_cast<uid_t>(-1);
    const bool isAsBefore = made && ::fchown(made.get(), owner, status.st_gid) == 0;
    if (made) {
        ::fchmod(made.get(), isAsBefore ? status.st_mode & 07777U : DIRECTORY_MODE);
    }
}

RunDirectory::Realm RunDirectory::judge(const std::string& realm, int& error)
{
    const std::lock_guard lock(m_mutex);
    if (m_realm == realm) {
        return Realm::eOURS;
    }
    const auto directory = openFile([&] { return ::open(m_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); });
    const RealmFile present = directory ? readRealmFile(directory.get()) : RealmFile{errno, {}, {}};
    if (!present.realm.empty()) {
        m_realm = present.realm;
    }
    error = present.error;
    const bool isReadable =
        error == 0 || error == ENOENT || error == ENOTDIR; // while it is missing, the last one stands
    return m_realm == realm ? Realm::eOURS : isReadable ? Realm::eOTHER : Realm::eUNKNOWN;
}

} // namespace kesa::commadapter::transport
