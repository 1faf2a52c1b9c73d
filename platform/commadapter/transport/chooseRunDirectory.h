#ifndef KESA_COMMADAPTER_TRANSPORT_CHOOSERUNDIRECTORY_H
#define KESA_COMMADAPTER_TRANSPORT_CHOOSERUNDIRECTORY_H

#include <string>

namespace kesa::commadapter::transport {

/// The run directory that an administrator makes for a whole machine.
inline constexpr const char* SYSTEM_RUN_DIRECTORY = "/run/kesa";

struct RunDirectoryChoice {
    std::string path;   ///< as it is named
    const char* source; ///< "run_dir", "$KESA_RUN_DIR", "$XDG_RUNTIME_DIR" or "the default"
};

/// Where this process meets others, by the one rule that all follow: `configured`, which is "run_dir" of the document;
/// else `$KESA_RUN_DIR`; else `/run/kesa`, if this user may write there or make it; else `$XDG_RUNTIME_DIR/kesa`; else
/// `/run/kesa`. What depends on rights is found out once in a process, which so stays where it is. Any thread.
RunDirectoryChoice chooseRunDirectory(const std::string& configured);

/// The part of the rule that depends on rights, each time anew, with another directory in place of `/run/kesa`.
RunDirectoryChoice chooseSharedRunDirectory(const std::string& systemDirectory);

} // namespace kesa::commadapter::transport

#endif
