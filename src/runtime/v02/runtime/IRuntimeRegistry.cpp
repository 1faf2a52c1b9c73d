#include <kesa/runtime/v02/IRuntimeRegistry.h>

namespace kesa::runtime::v02 {

IRuntimeRegistry::~IRuntimeRegistry() = default;

} // namespace kesa::runtime::v02
