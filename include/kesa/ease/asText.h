#ifndef KESA_EASE_ASTEXT_H
#define KESA_EASE_ASTEXT_H

#include <kesa/Payload.h>
#include <kesa/mimetypes.h>

#include <string>
#include <utility>

namespace kesa {

/// A body of plain text, `mimetypes::TEXT`.
inline Payload asText(std::string text)
{
    return Payload::createFromString(std::move(text), mimetypes::TEXT);
}

} // namespace kesa

#endif
