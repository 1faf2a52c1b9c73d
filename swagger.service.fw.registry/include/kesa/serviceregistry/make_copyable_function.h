#ifndef KESA_SERVICEREGISTRY_MAKE_COPYABLE_FUNCTION_H
#define KESA_SERVICEREGISTRY_MAKE_COPYABLE_FUNCTION_H

#include <memory>
#include <type_traits>
#include <utility>

namespace kesa::serviceregistry {

/// Makes a callable that can only be moved fit for a `std::function`: the copies share it, and each calls the same one.
/// It dies with the last copy.
template <class F>
auto make_copyable_function(F&& callable)
{
    auto shared = std::make_shared<std::decay_t<F>>(std::forward<F>(callable));
    return [shared = std::move(shared)](auto&&... arguments) -> decltype(auto) {
        return (*shared)(std::forward<decltype(arguments)>(arguments)...);
    };
}

} // namespace kesa::serviceregistry

#endif
