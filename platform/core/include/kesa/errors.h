#ifndef KESA_ERRORS_H
#define KESA_ERRORS_H

#include <obr/ErrorType.h>

namespace kesa::errors {

/// The errors of Kesa. 7, 12 and 18 are free texts of one argument; every other number is a sentence.
KESA_API extern const obr::ErrorType Error;

/// A malformed glob; arguments: the glob, the position in it, what is wrong there.
inline constexpr int MALFORMED_GLOB = 19;

} // namespace kesa::errors

#endif
