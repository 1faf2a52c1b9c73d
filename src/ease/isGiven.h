#ifndef KESA_EASE_ISGIVEN_H
#define KESA_EASE_ISGIVEN_H

#include <obr/GlobalErrorHandler.h>

namespace kesa::detail {

/// False, after a failed assertion that says what to do, when `handler` is null: called later and on another thread, it
/// would end the process without a word.
template <class Handler>
[[nodiscard]] bool isGiven(const Handler& handler, const char* whatToDo)
{
    const bool isThere = static_cast<bool>(handler);
    if (!isThere) {
        obr::GlobalErrorHandler::doAssert(false, "handler", __FILE__, __LINE__, __func__, whatToDo);
    }
    return isThere;
}

} // namespace kesa::detail

#endif
