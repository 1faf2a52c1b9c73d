#ifndef KESA_COMMADAPTER_WHYUNREACHABLE_H
#define KESA_COMMADAPTER_WHYUNREACHABLE_H

#include <kesa/url.h>

#include <string>

namespace kesa::commadapter {

/// For tools that explain why nobody answers at a locator: one attempt to connect, on a loop of its own. Its reason,
/// such as "no process listens as \"media\" in \"/run/kesa\""; empty when somebody listens there. Blocks; not on a
/// loop.
KESA_API std::string whyUnreachable(const url& locator);

} // namespace kesa::commadapter

#endif
