#include <obr/errors.h>

namespace obr::errors {
namespace {

std::string text(int number, const std::string_view* arguments, std::size_t count)
{
    if (number == TEXT && count > 0) {
        return std::string(arguments[0]);
    }
    return "error " + std::to_string(number) + " of obr";
}

} // namespace

constinit const ErrorType Error{"obr", text};

} // namespace obr::errors
