#ifndef KESA_DURATION_H
#define KESA_DURATION_H

#include <chrono>

namespace kesa {

/// How long something lasts, from a `std::chrono::duration` of whatever unit and number. One that is longer than
/// nanoseconds can say, as `std::chrono::hours::max()`, is the longest; one that is no number is nothing.
class Duration {
public:
    constexpr Duration(std::chrono::nanoseconds value) noexcept : m_value(value) {} // NOLINT(*-explicit-*): is one
    template <class Number, class Unit>
    constexpr Duration(std::chrono::duration<Number, Unit> value) noexcept // NOLINT(*-explicit-*): is one
        : m_value(nearest(value))
    {}

    constexpr std::chrono::nanoseconds nanoseconds() const noexcept { return m_value; }

private:
    using Exact = std::chrono::duration<long double, std::nano>;

    static constexpr std::chrono::nanoseconds nearest(Exact value) noexcept
    {
        using std::chrono::nanoseconds;
        constexpr long double LONGEST = Exact(nanoseconds::max()).count();
        constexpr long double SHORTEST = Exact(nanoseconds::min()).count();
        const long double count = value.count(); // the operators of durations take what is no number for the greatest
        return count >= LONGEST    ? nanoseconds::max()
               : count > SHORTEST  ? std::chrono::duration_cast<nanoseconds>(value)
               : count <= SHORTEST ? nanoseconds::min()
                                   : nanoseconds::zero();
    }

    std::chrono::nanoseconds m_value;
};

} // namespace kesa

#endif
