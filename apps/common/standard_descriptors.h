#ifndef KESA_APPS_COMMON_STANDARD_DESCRIPTORS_H
#define KESA_APPS_COMMON_STANDARD_DESCRIPTORS_H

namespace apps {

/// Before anything is opened: takes the numbers of stdin, stdout and stderr that the process was started without, so
/// that no socket or lock file gets them. Reading and writing there fails as before.
void holdStandardDescriptors();

} // namespace apps

#endif
