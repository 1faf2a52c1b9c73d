#ifndef KESA_SERVICEREGISTRY_RECORDS_ENUMTABLE_H
#define KESA_SERVICEREGISTRY_RECORDS_ENUMTABLE_H

#include <kesa/optional.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace kesa::serviceregistry {

/// The strings of an enumeration, by ordinal.
template <std::size_t N>
using EnumTable = std::array<std::string_view, N>;

/// Absent for an ordinal beyond the table.
template <class E, std::size_t N>
optional<std::string> toString(const EnumTable<N>& table, E value)
{
    const auto ordinal = static_cast<std::size_t>(value);
    return ordinal < N ? optional<std::string>(table[ordinal]) : nullopt;
}

/// The enumerator whose string is exactly `text`.
template <class E, std::size_t N>
optional<E> fromString(const EnumTable<N>& table, std::string_view text)
{
    const auto found = std::find(table.begin(), table.end(), text);
    return found == table.end() ? nullopt : optional<E>(static_cast<E>(found - table.begin()));
}

/// Takes the value out of `from`; true when there is none, and `to` stays as it is.
template <class T>
[[nodiscard]] bool assign(optional<T>&& from, T& to)
{
    if (!from) {
        return true;
    }
    to = std::move(*from);
    return false;
}

} // namespace kesa::serviceregistry

#endif
