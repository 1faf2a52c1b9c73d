#ifndef OBR_ERRORS_H
#define OBR_ERRORS_H

#include <obr/ErrorType.h>

namespace obr::errors {

/// Errors of the lowest layers. Number 1: one argument, which is the whole text.
KESA_API extern const ErrorType Error;

/// The number of a free text.
inline constexpr int TEXT = 1;

} // namespace obr::errors

#endif
