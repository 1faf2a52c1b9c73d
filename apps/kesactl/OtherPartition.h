#ifndef KESACTL_OTHERPARTITION_H
#define KESACTL_OTHERPARTITION_H

#include <common/RegistryPlace.h>
#include <kesa/url.h>
#include <util/config/Value.h>

#include <string>

namespace kesactl {

/// Of which other partition than this process's a process is, as the document that both have divides them.
struct OtherPartition {
    std::string name; ///< empty: of none that the document names, or of this one's
    std::string own;  ///< this process's
    kesa::url registry;
    bool isConnected = false; ///< to that registry
    std::string reason;       ///< why not

    /// "it is connected to that of partition "north"", or that this one does not run.
    std::string text() const;
    std::string advice() const;
};

/// `answer`: what the process says of itself.
OtherPartition findOtherPartition(const util::config::Value& answer, const apps::RegistryPlace& place);

/// The partition, of the others that the document names, whose registry has that name as in locators; empty: none.
std::string partitionOfRegistry(const std::string& process, const apps::RegistryPlace& place);

} // namespace kesactl

#endif
