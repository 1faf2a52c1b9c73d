#include <kesa/mimetypes.h>

#include <cstddef>

namespace kesa::mimetypes {

namespace {
// In the order of MimeTypeID.
constexpr std::string_view NAMES[] = {{}, JSON, TEXT, OCTETS, MSGPACK, QELBIN};
} // namespace

MimeTypeID typename2id(std::string_view name) noexcept
{
    std::uint8_t id = 0;
    for (const std::string_view known : NAMES) {
        if (known == name) {
            return MimeTypeID{id};
        }
        ++id;
    }
    return MimeTypeID::eUNKNOWN;
}

std::string_view id2typename(MimeTypeID id) noexcept
{
    const auto index = static_cast<std::size_t>(id);
    return index < std::size(NAMES) ? NAMES[index] : std::string_view();
}

} // namespace kesa::mimetypes
