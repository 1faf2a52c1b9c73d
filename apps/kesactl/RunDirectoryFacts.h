#ifndef KESACTL_RUNDIRECTORYFACTS_H
#define KESACTL_RUNDIRECTORYFACTS_H

#include <transport/NameLock.h>
#include <transport/directoryTrust.h>

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace kesactl {

/// What stands in a run directory. Looking changes nothing there and takes no lock.
struct RunDirectoryFacts {
    /// A process name that is or was used.
    struct Name {
        std::string name;    ///< as in locators
        pid_t holder = 0;    ///< 0: nobody has it
        pid_t heirOf = 0;    ///< not 0: the holder is a child of that process, which had the name and has ended
        bool isLost = false; ///< its holder lives, but its files were removed; others may have the name by now
        bool hasSocket = false;
        std::string kind;   ///< of what is no socket: "a directory"; else empty
        pid_t listener = 0; ///< who has made the socket; 0: unknown
        std::string rights; ///< of the socket: "srw-rw---- root kesa"
        /// Whose the name is, if he cannot replace what stands there, which is of another user; else empty.
        std::string keptOut;
        std::string maker;    ///< whose that is, where only he, root and the owner of the directory can replace it
        int connectError = 0; ///< `errno` of a connection to the socket; 0: somebody listens
    };
    /// A name that nobody has, and that its lock file keeps users from.
    struct Refusal {
        std::string name; ///< as in locators
        kesa::commadapter::transport::LockFileProblem problem;
    };
    enum class Realm { eMISSING, eGOOD, eBAD, eUNREADABLE };

    explicit RunDirectoryFacts(const std::string& path);

    /// What comes before starting the process: "remove …, then ", "as the user …, "; else empty.
    std::string beforeStart(const std::string& process) const;

    std::string path;
    int error = 0; ///< `errno` of looking into it; then there are its rights and those that are lost only
    dev_t device = 0;
    ino_t inode = 0;
    std::string rights; ///< "drwxr-xr-x root root"
    std::string group;
    bool isWritable = false; ///< by its rights
    int writeError =
        0; ///< `errno` of why no process can be started there; `ENOSPC`: the rights are there, the room is not
    /// Why a process of this user provides nothing there, although it may write.
    kesa::commadapter::transport::DirectoryDistrust distrust;
    Realm realmState = Realm::eMISSING;
    std::string realm;
    std::vector<Name> names;         ///< in order, then the lost ones; those nobody has only if their socket is there
    std::vector<Refusal> refused;    ///< to users who may write there
    std::vector<std::string> strays; ///< other files
};

/// Whether no file can be made in a directory, or none with content, since its file system has no more room.
struct Room {
    explicit Room(const std::string& directory);

    bool hasNone = false;           ///< not even for an empty file
    bool hasNoneForContent = false; ///< nor for a byte
};

} // namespace kesactl

#endif
