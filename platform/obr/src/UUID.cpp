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

constexpr std::uint8_t NO_DIGIT = 0xff;

/// 0 to 15, or `NO_DIGIT`, for each character.
constexpr std::array<std::uint8_t, 256> makeDigits() noexcept
{
    std::array<std::uint8_t, 256> digits{};
    digits.fill(NO_DIGIT);
    for (unsigned value = 0; value < 16; ++value) {
        digits[static_cast<unsigned char>("0123456789abcdef"[value])] = static_cast<std::uint8_t>(value);
        digits[static_cast<unsigned char>("0123456789ABCDEF"[value])] = static_cast<std::uint8_t>(value);
    }
    return digits;
}
constexpr std::array<std::uint8_t, 256> DIGITS = makeDigits();

/// Where the two digits of each byte stand.
constexpr std::array<std::uint8_t, 16> PLACES = {0, 2, 4, 6, 9, 11, 14, 16, 19, 21, 24, 26, 28, 30, 32, 34};

} // namespace

/// By hand: every record has one, and the library's way through numbers takes as long as a third of a record's JSON.
std::optional<UUID> UUID::fromString(std::string_view text) noexcept
{
    if (text.size() != UUID_STR_LEN - 1 || text[8] != '-' || text[13] != '-' || text[18] != '-' || text[23] != '-') {
        return std::nullopt;
    }
    std::array<std::uint8_t, 16> bytes{};
    unsigned all = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const unsigned high = DIGITS[static_cast<unsigned char>(text[PLACES[i]])];
        const unsigned low = DIGITS[static_cast<unsigned char>(text[PLACES[i] + 1U])];
        all |= high | low;
        bytes[i] = static_cast<std::uint8_t>(high << 4U | low);
    }
    return all < 16 ? std::optional<UUID>(bytes) : std::nullopt;
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
