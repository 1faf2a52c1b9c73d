#ifndef KESACTL_DESCRIPTORS_H
#define KESACTL_DESCRIPTORS_H

#include <cstddef>

namespace kesactl {

/// Lets this process have as many descriptors as it may, before anything is opened: one that lacks them would take
/// healthy processes for silent. A `Failure` when those are too few for any command.
void raiseDescriptorLimit();

/// How many processes can be asked at once with the descriptors that are left, at least one. A `Failure` when none can.
std::size_t countAskableAtOnce();

} // namespace kesactl

#endif
