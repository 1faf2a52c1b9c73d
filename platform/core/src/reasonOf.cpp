#include <kesa/headers.h>
#include <kesa/reasonOf.h>

namespace kesa {

std::string reasonOf(const Response& error)
{
    std::string text = Response::getErrorMessageWithCode(error);
    if (const auto reason = error.getHeaders()[headers::REASON].stringView(); !reason.empty()) {
        text.append(": ").append(reason);
    }
    return text;
}

} // namespace kesa
