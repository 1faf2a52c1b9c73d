#include <kesa/errors.h>
#include <kesa/mimetypes.h>

#include <fmt/format.h>

namespace kesa::errors {

namespace {

std::string textOf(int number, const std::string_view* arguments, std::size_t count)
{
    const auto argument = [&](std::size_t index) { return index < count ? arguments[index] : std::string_view(); };
    switch (number) {
    case 3:
        return fmt::format("command '{}': '{}' is no path of a resource", argument(0), argument(1));
    case 5:
        return fmt::format("a null '{}' can not be written", argument(0));
    case 7:
    case 12:
    case 18:
        return std::string(argument(0));
    case 11:
        return fmt::format("the payload can not be read as '{}'", argument(0));
    case 13:
        return fmt::format("{}: {}", argument(0), argument(1));
    case 14:
        return fmt::format("command '{}' is not served on path '{}'", argument(0), argument(1));
    case 15:
        return fmt::format("{}: no service path can be derived from the path of the request", argument(0));
    case 16:
        return fmt::format("no serializer for the mime type '{}'; known are {}, {} and {}", argument(0),
                           mimetypes::JSON, mimetypes::MSGPACK, mimetypes::QELBIN);
    case MALFORMED_GLOB:
        return fmt::format("glob '{}' is malformed at position {}: {}", argument(0), argument(1), argument(2));
    default:
        break;
    }
    std::string text = fmt::format("error {}", number);
    for (std::size_t index = 0; index < count; ++index) {
        text.append(index == 0 ? ": " : ", ").append(arguments[index]);
    }
    return text;
}

} // namespace

constinit const obr::ErrorType Error("kesa", &textOf);

} // namespace kesa::errors
