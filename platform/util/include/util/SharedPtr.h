#ifndef UTIL_SHAREDPTR_H
#define UTIL_SHAREDPTR_H

#include <memory>

namespace util {

template <class T>
using SharedPtr = std::shared_ptr<T>;

} // namespace util

#endif
