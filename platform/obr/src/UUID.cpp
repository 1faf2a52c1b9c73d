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

namespace {

/// 0 to 15; more for what is no hexadecimal digit.
unsigned digit(char character) noexcept
{
    if (character >= '0' && character <= '9') {
        return static_cast<unsigned>(character - '0');
    }
    const auto letter = static_cast<unsigned>(character | 0x20) - 'a';
    return letter < 6 ? 10 + letter : 16;
}

} // namespace

/// By hand: every record has one, and the library's way through numbers takes as long as a third of a record's JSON.
std::optional<UUID> UUID::fromString(std::string_view text) noexcept
{
    if (text.size() != UUID_STR_LEN - 1 || text[8] != '-' || text[13] != '-' || text[18] != '-' || text[23] != '-') {
        return std::nullopt;
    }
    std::array<std::uint8_t, 16> bytes{};
    std::size_t at = 0;
    for (std::uint8_t& byte : bytes) {
        at += at == 8 || at == 13 || at == 18 || at == 23 ? 1 : 0;
        const unsigned high = digit(text[at]);
        const unsigned low = digit(text[at + 1]);
        if (high > 15 || low > 15) {
            return std::nullopt;
        }
        byte = static_cast<std::uint8_t>(high << 4U | low);
        at += 2;
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
