#include "store/Viewer.h"

namespace kesa::registry {

Sight::~Sight() = default;

} // namespace kesa::registry
