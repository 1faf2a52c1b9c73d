#ifndef UTIL_UNIQUEFUNCTION_H
#define UTIL_UNIQUEFUNCTION_H

#include <memory>
#include <type_traits>
#include <utility>

namespace util {

template <class Signature>
class UniqueFunction;

/// A move-only `std::function`: it may own what cannot be copied.
template <class R, class... A>
class UniqueFunction<R(A...)> {
public:
    UniqueFunction() noexcept = default;
    UniqueFunction(std::nullptr_t) noexcept {}
    template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, UniqueFunction> &&
                                                std::is_invocable_r_v<R, std::decay_t<F>&, A...>>>
    UniqueFunction(F&& function) : m_callable(std::make_unique<Callable<std::decay_t<F>>>(std::forward<F>(function)))
    {}
    UniqueFunction(UniqueFunction&&) noexcept = default;
    UniqueFunction& operator=(UniqueFunction&&) noexcept = default;

    explicit operator bool() const noexcept { return m_callable != nullptr; }
    R operator()(A... arguments) { return m_callable->call(std::forward<A>(arguments)...); }

private:
    struct Base {
        virtual ~Base() = default;
        virtual R call(A... arguments) = 0;
    };
    template <class F>
    struct Callable final : Base {
        template <class G>
        explicit Callable(G&& g) : function(std::forward<G>(g))
        {}
        R call(A... arguments) override { return function(std::forward<A>(arguments)...); }
        F function;
    };
    std::unique_ptr<Base> m_callable;
};

} // namespace util

#endif
