#ifndef KESA_RUNTIME_V02_CONFIG_ADVICE_H
#define KESA_RUNTIME_V02_CONFIG_ADVICE_H

#include <string_view>

namespace kesa::runtime::v02 {

/// What to write instead, for a complaint of the configuration reader; empty when the complaint says it itself.
std::string_view adviceFor(std::string_view complaint);

} // namespace kesa::runtime::v02

#endif
