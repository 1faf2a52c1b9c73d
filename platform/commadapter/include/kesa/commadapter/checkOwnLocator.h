#ifndef KESA_COMMADAPTER_CHECKOWNLOCATOR_H
#define KESA_COMMADAPTER_CHECKOWNLOCATOR_H

#include <kesa/url.h>

#include <string>

namespace kesa::commadapter {

/// Whether a process could provide a service at a locator.
struct OwnLocator {
    enum class State {
        eUNREACHABLE, ///< its scheme, realm or path without scheme is not known here
        eOTHERS,      ///< it names another process
        eNAME_HELD,   ///< it is the process's own, but a living process has the name, or it is kept for another user
        eMISSET,      ///< it is the process's own, but "comm" names a group that is not there
        eUNUSABLE,    ///< it is the process's own, but the run directory or the name cannot be used
        eCLAIMABLE,   ///< it is the process's own, and nothing is in the way
    };
    State state;
    std::string why; ///< a sentence, for the three in the way
};

/// For tools that explain what a process named `process` would meet, with the settings of the configuration document.
/// Not to be asked for the name of a runtime that is running in this very process.
KESA_API OwnLocator checkOwnLocator(const std::string& process, const url& locator);

} // namespace kesa::commadapter

#endif
