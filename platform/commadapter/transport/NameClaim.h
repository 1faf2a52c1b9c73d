#ifndef KESA_COMMADAPTER_TRANSPORT_NAMECLAIM_H
#define KESA_COMMADAPTER_TRANSPORT_NAMECLAIM_H

#include "transport/Descriptor.h"
#include "transport/IpcTransport.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <memory>
#include <string>

namespace kesa::commadapter::transport {

/// The file name of the socket under which a process is found.
std::string socketFileName(const std::string& process);

/// A process name held in a run directory, and the socket that listens under it. Destroying it gives the name back.
/// One thread at a time.
class NameClaim {
public:
    /// Null when a living process has the name or a right is missing; `why` says so. Waits for
    /// nobody but a process that is being ended by the kernel, two seconds at most.
    static std::unique_ptr<NameClaim> take(Descriptor directory, const std::string& process,
                                           const IpcSettings& settings, std::string& why);
    /// Whether `take` would fail, since a living process has the name, or it is kept for another user (`isHeld`), or
    /// since a right is missing. Has the name itself for a moment: for explanations, not to decide by.
    static bool isRefused(const Descriptor& directory, const std::string& process, bool& isHeld, std::string& why);
    /// The name and a new socket in a directory in which the old one is not there any more, which may be the same one.
    /// Null, as `take`, while this claim stays as it is; else this one is to be destroyed.
    std::unique_ptr<NameClaim> takeAgain(Descriptor directory, const IpcSettings& settings, std::string& why);
    ~NameClaim();
    NameClaim(const NameClaim&) = delete;
    NameClaim& operator=(const NameClaim&) = delete;

    int directory() const noexcept { return m_directory.get(); }
    int socket() const noexcept { return m_socket.get(); }
    /// Whether the directory has the lock that says whose the name is.
    bool isNameThere() const;
    /// Whether a file is that of the socket.
    bool isSocketFile(const struct stat& file) const noexcept
    {
        return file.st_ino == m_inode && file.st_dev == m_device;
    }

private:
    NameClaim(Descriptor directory, const std::string& process);
    bool lock(std::string& why);
    bool listen(const IpcSettings& settings, std::string& why);
    std::string bindDraft(std::string& why) const;
    bool giveRights(const std::string& draft, const IpcSettings& settings, std::string& why) const;
    void removeSocket() const;

    const Descriptor m_directory;
    const std::string m_process;
    const std::string m_file;
    Descriptor m_lock;
    Descriptor m_socket;
    dev_t m_device = 0; ///< of the socket's file, once it is there
    ino_t m_inode = 0;
};

} // namespace kesa::commadapter::transport

#endif
