#ifndef KESACTL_RAISEDESCRIPTORLIMIT_H
#define KESACTL_RAISEDESCRIPTORLIMIT_H

namespace kesactl {

/// Lets this process have as many descriptors as it may, before anything is opened: one that lacks them would take
/// healthy processes for silent. A `Failure` when those are too few for any command.
void raiseDescriptorLimit();

} // namespace kesactl

#endif
