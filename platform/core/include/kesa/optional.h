#ifndef KESA_OPTIONAL_H
#define KESA_OPTIONAL_H

#include <optional>

namespace kesa {

using std::nullopt;
using std::optional;

} // namespace kesa

#endif
