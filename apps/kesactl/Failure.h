#ifndef KESACTL_FAILURE_H
#define KESACTL_FAILURE_H

#include <string>

namespace kesactl {

/// How a command ends, for scripts.
enum class ExitCode {
    eOK = 0,
    eFAILED = 1,      ///< not found, no right to it, or the service refused
    eUSAGE = 2,       ///< wrong arguments
    eNO_REGISTRY = 3, ///< not there, or it does not answer
    eTIMED_OUT = 4,
    eNOT_WRITTEN = 5, ///< the output, or its reader has gone
};

/// Thrown by a command that cannot go on; `main` prints the text and ends with the code.
struct Failure {
    ExitCode exitCode;
    std::string text;     ///< what is wrong; empty when there is nobody to tell
    int status = 0;       ///< of the error that the service has answered; 0: none has
    std::string advice{}; ///< what to do, on a line of its own; may be empty, or part of the text

    std::string members{}; ///< further ones of its JSON object, `,"key":value`

    std::string sentence() const { return advice.empty() ? text : text + "; " + advice; }
};

} // namespace kesactl

#endif
