#ifndef KESA_SERVICECOMP_H
#define KESA_SERVICECOMP_H

#include <kesa/Request.h>

#include <functional>
#include <string>

namespace kesa::servicecomp {

using MimeTypeFunction = std::function<std::string(const Request&)>;

/// Installs the process-wide function that chooses the format of an answer. Any thread, also while requests run.
KESA_API void overrideMimeTypeFunc(MimeTypeFunction function);
/// The format for the answer to `request`; "application/json" while no function is installed.
KESA_API std::string mimeTypeFor(const Request& request);

} // namespace kesa::servicecomp

#endif
