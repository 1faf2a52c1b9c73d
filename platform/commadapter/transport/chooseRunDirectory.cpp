#include "transport/chooseRunDirectory.h"

#include <obr/environment.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kesa::commadapter::transport {

namespace {

bool mayWrite(const std::string& directory)
{
    return ::faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

bool mayWriteOrMake(const std::string& directory)
{
    return mayWrite(directory) || (errno == ENOENT && mayWrite(directory.substr(0, directory.rfind('/'))));
}

} // namespace

RunDirectoryChoice chooseSharedRunDirectory(const std::string& systemDirectory)
{
    const std::string ofUser = obr::environment("XDG_RUNTIME_DIR");
    return ofUser.empty() || mayWriteOrMake(systemDirectory) ? RunDirectoryChoice{systemDirectory, "the default"}
                                                             : RunDirectoryChoice{ofUser + "/kesa", "$XDG_RUNTIME_DIR"};
}

RunDirectoryChoice chooseRunDirectory(const std::string& configured)
{
    if (!configured.empty()) {
        return {configured, "run_dir"};
    }
    if (std::string own = obr::environment("KESA_RUN_DIR"); !own.empty()) {
        return {std::move(own), "$KESA_RUN_DIR"};
    }
    static const RunDirectoryChoice& shared = *new RunDirectoryChoice(chooseSharedRunDirectory(SYSTEM_RUN_DIRECTORY));
    return shared;
}

} // namespace kesa::commadapter::transport
