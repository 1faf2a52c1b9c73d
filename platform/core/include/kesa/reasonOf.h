#ifndef KESA_REASONOF_H
#define KESA_REASONOF_H

#include <kesa/Response.h>

#include <string>

namespace kesa {

/// An error with all that is known of it, for people: what `Response::getErrorMessageWithCode` answers, and the reason
/// that stands in its header `headers::REASON`, if there is one:
///     "409: service already registered: held by process player (pid 812)"
KESA_API std::string reasonOf(const Response& error);

} // namespace kesa

#endif
