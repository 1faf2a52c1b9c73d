#include <kesa/serviceregistry/IServiceRegistry.h>

namespace kesa::serviceregistry {

IServiceRegistry::~IServiceRegistry() = default;

} // namespace kesa::serviceregistry
