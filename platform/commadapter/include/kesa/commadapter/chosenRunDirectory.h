#ifndef KESA_COMMADAPTER_CHOSENRUNDIRECTORY_H
#define KESA_COMMADAPTER_CHOSENRUNDIRECTORY_H

#include <obr/api.h>

#include <string>

namespace kesa::commadapter {

/// Where the "comm" backend of this process meets others, whether it is there or not: by the configuration document,
/// which is read for it, and the environment. Any thread.
KESA_API std::string chosenRunDirectory();

} // namespace kesa::commadapter

#endif
