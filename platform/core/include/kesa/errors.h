#ifndef KESA_ERRORS_H
#define KESA_ERRORS_H

#include <obr/ErrorType.h>

namespace kesa::errors {

/// The errors of Kesa. 7, 12 and 18 are free texts of one argument; every other number is a sentence.
KESA_API extern const obr::ErrorType Error;

} // namespace kesa::errors

#endif
