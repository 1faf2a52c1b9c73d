#ifndef KESA_COMMADAPTER_TRANSPORT_RUNDIRECTORY_H
#define KESA_COMMADAPTER_TRANSPORT_RUNDIRECTORY_H

#include "transport/Descriptor.h"
#include "transport/chooseRunDirectory.h"

#include <sys/stat.h>

#include <mutex>
#include <string>

namespace kesa::commadapter::transport {

/// What the file `realm` of a run directory holds.
struct RealmFile {
    int error = 0;         ///< `errno` of opening it: `ENOENT` when it is not there
    std::string realm;     ///< empty: it holds something else, or is no file
    struct stat status {}; ///< of the file, where there is a realm
};

/// Whatever it is that somebody has put there: neither waits, nor follows a link, nor reads on.
RealmFile readRealmFile(int directory);

/// The directory in which the processes of one realm find each other; its file `realm` names the realm. Any thread.
class RunDirectory {
public:
    /// The name of the file that names the realm.
    static constexpr const char* REALM_FILE = "realm";

    /// The one that `chooseRunDirectory` names.
    explicit RunDirectory(const std::string& configured);

    /// Absolute, without a slash at its end.
    const std::string& path() const noexcept { return m_path; }
    /// The same for messages: a variable may have line breaks and worse.
    std::string shownPath() const;
    /// What names it, as in `RunDirectoryChoice`.
    const char* source() const noexcept { return m_source; }

    /// Its file is not there: nobody was there so far, or somebody has removed it.
    bool lacksRealm() const;

    /// Makes the directory (0755, if its parent is there) and its realm if they are missing, and opens it. Refuses one
    /// in which other users could replace what this process makes. `realm`: the one it shall have where it has none;
    /// empty: a new one. True on failure: `why` says what is wrong and what to do.
    [[nodiscard]] bool prepare(Descriptor& directory, std::string& realm, std::string& why);

    /// Makes it with the rights that it had, if it was removed; `former`: a descriptor of what it was.
    void makeAgain(int former) const;

    enum class Realm {
        eOURS,
        eOTHER,
        eUNKNOWN, ///< the file cannot be read at the moment, for lack of descriptors or rights
    };
    /// Whose the realm is. Reads the directory's file only until that is known, and for the realms of others: the
    /// directory may have been made anew. `error`: with `eUNKNOWN` the `errno`.
    Realm judge(const std::string& realm, int& error);

private:
    explicit RunDirectory(const RunDirectoryChoice& choice);
    bool isDistrusted(int directory, std::string& why) const;

    const char* const m_source;
    const std::string m_path;
    std::mutex m_mutex;  ///< the realm is asked for in any thread, and read when that is first done
    std::string m_realm; ///< under `m_mutex`; empty until known
};

} // namespace kesa::commadapter::transport

#endif
