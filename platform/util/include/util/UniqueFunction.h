#ifndef UTIL_UNIQUEFUNCTION_H
#define UTIL_UNIQUEFUNCTION_H

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace util {

template <class Signature>
class UniqueFunction;

/// A move-only `std::function`: it may own what cannot be copied. What is small and moves without an exception lies in
/// the function itself, without an allocation.
template <class R, class... A>
class UniqueFunction<R(A...)> {
public:
    UniqueFunction() noexcept = default;
    UniqueFunction(std::nullptr_t) noexcept {}
    template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, UniqueFunction> &&
                                                std::is_invocable_r_v<R, std::decay_t<F>&, A...>>>
    UniqueFunction(F&& function)
    {
        using Made = Callable<std::decay_t<F>>;
        if constexpr (Made::FITS) {
            m_callable = new (m_room) Made(std::forward<F>(function));
        } else {
            m_callable = new Made(std::forward<F>(function));
        }
    }
    UniqueFunction(UniqueFunction&& other) noexcept { takeFrom(other); }
    UniqueFunction& operator=(UniqueFunction&& other) noexcept
    {
        if (this != &other) {
            UniqueFunction before; // what it held may refer to what it gets
            before.takeFrom(*this);
            takeFrom(other);
        }
        return *this;
    }
    ~UniqueFunction()
    {
        if (m_callable != nullptr) {
            m_callable->destroy();
        }
    }

    explicit operator bool() const noexcept { return m_callable != nullptr; }
    R operator()(A... arguments) { return m_callable->call(std::forward<A>(arguments)...); }

private:
    struct Base {
        virtual R call(A... arguments) = 0;
        /// Ends here and goes on in `room`, or stays where it is, on the heap.
        virtual Base* moveTo(void* room) noexcept = 0;
        virtual void destroy() noexcept = 0;

    protected:
        ~Base() = default;
    };
    static constexpr std::size_t ROOM = 4 * sizeof(void*);

    template <class F>
    struct Callable final : Base {
        static constexpr bool FITS =
            sizeof(F) + sizeof(Base) <= ROOM && alignof(F) <= alignof(void*) && std::is_nothrow_move_constructible_v<F>;
        template <class G>
        explicit Callable(G&& g) : function(std::forward<G>(g))
        {}
        R call(A... arguments) override { return function(std::forward<A>(arguments)...); }
        Base* moveTo(void* room) noexcept override
        {
            if constexpr (FITS) {
                Base* const moved = new (room) Callable(std::move(function));
                this->~Callable();
                return moved;
            } else {
                return this;
            }
        }
        void destroy() noexcept override
        {
            if constexpr (FITS) {
                this->~Callable();
            } else {
                delete this;
            }
        }
        F function;
    };

    /// Holds nothing before.
    void takeFrom(UniqueFunction& other) noexcept
    {
        if (Base* const callable = std::exchange(other.m_callable, nullptr)) {
            m_callable = callable->moveTo(m_room);
        }
    }

    Base* m_callable = nullptr;
    alignas(void*) unsigned char m_room[ROOM];
};

} // namespace util

#endif
