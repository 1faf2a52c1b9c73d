#include <obr/Random.h>
#include <obr/UUID.h>

#include <cstring>
#include <uuid/uuid.h>

namespace obr {

UUID UUID::generate()
{
    Random& random = Random::current();
    const std::array<std::uint64_t, 2> words{random.next(), random.next()};
    std::array<std::uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), words.data(), bytes.size());
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0f) | 0x40); // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3f) | 0x80); // the RFC's variant
    return UUID(bytes);
}

std::optional<UUID> UUID::fromString(std::string_view text) noexcept
{
    std::array<std::uint8_t, 16> bytes{};
    // The parser reads up to the end it is given; it has to be told of text that is too short.
    if (text.size() != UUID_STR_LEN - 1 ||
        ::uuid_parse_range(text.data(), text.data() + text.size(), bytes.data()) != 0) {
        return std::nullopt;
    }
    return UUID(bytes);
}

std::string UUID::toString() const
{
    std::array<char, UUID_STR_LEN> text{};
    ::uuid_unparse_lower(m_bytes.data(), text.data());
    return text.data();
}

int UUID::compare(const UUID& other) const noexcept
{
    return std::memcmp(m_bytes.data(), other.m_bytes.data(), m_bytes.size());
}

} // namespace obr
