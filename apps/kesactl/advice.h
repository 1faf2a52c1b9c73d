#ifndef KESACTL_ADVICE_H
#define KESACTL_ADVICE_H

#include <string_view>

namespace kesactl {

/// What to write instead, for a complaint of the configuration reader; empty when the complaint says it itself.
std::string_view adviceFor(std::string_view complaint);

} // namespace kesactl

#endif
