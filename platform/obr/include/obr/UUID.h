#ifndef OBR_UUID_H
#define OBR_UUID_H

#include <obr/api.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace obr {

/// A 128-bit identifier; nil by default.
class KESA_API UUID {
public:
    UUID() noexcept = default;
    explicit UUID(const std::array<std::uint8_t, 16>& bytes) noexcept : m_bytes(bytes) {}

    /// A new random one (version 4), drawn from `obr::Random`.
    static UUID generate();
    /// From the 36 characters of its text form, either case; absent for anything else.
    static std::optional<UUID> fromString(std::string_view text) noexcept;

    /// 36 characters, lower case.
    std::string toString() const;
    /// Less than, equal to or greater than 0, as the bytes compare.
    int compare(const UUID& other) const noexcept;
    bool isNil() const noexcept { return m_bytes == std::array<std::uint8_t, 16>{}; }
    const std::array<std::uint8_t, 16>& bytes() const noexcept { return m_bytes; }

    friend bool operator==(const UUID& a, const UUID& b) noexcept { return a.m_bytes == b.m_bytes; }
    friend bool operator!=(const UUID& a, const UUID& b) noexcept { return a.m_bytes != b.m_bytes; }

private:
    std::array<std::uint8_t, 16> m_bytes{};
};

} // namespace obr

#endif
