#ifndef KESACTL_SYSTEM_H
#define KESACTL_SYSTEM_H

#include "RegistryView.h"

#include <memory>
#include <string>

namespace kesactl {

/// This process as a guest of the running system: a runtime named "kesactl-PID" that provides nothing and leaves no
/// files.
class System {
public:
    /// A `Failure` when the configuration names no registry and one is needed, or when no process starts with it.
    explicit System(bool isRegistryNeeded = true);
    ~System();
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    std::unique_ptr<RegistryView> view(const std::string& glob) const;

private:
    std::vector<kesa::url> m_locators; ///< of the registry
};

} // namespace kesactl

#endif
