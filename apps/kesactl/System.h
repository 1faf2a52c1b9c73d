#ifndef KESACTL_SYSTEM_H
#define KESACTL_SYSTEM_H

#include "RegistryView.h"

#include <common/RegistryPlace.h>

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

    /// A `Failure` when the configuration names no registry.
    std::unique_ptr<RegistryView> view(const std::string& glob) const;
    /// The record in a document that asks for no registry. Null when there is none, or a registry is asked.
    const ServiceDef* findConfigured(const std::string& path) const;
    /// Where the registry is that processes ask first; null when the configuration names none.
    const kesa::url* registry() const;

private:
    void checkRegistry() const;

    apps::RegistryPlace m_place;
};

/// "/media/player, /media/radio", of the first ones; "no service".
std::string pathsOf(const std::vector<ServiceDef>& services);

} // namespace kesactl

#endif
