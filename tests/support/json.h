#ifndef KESA_TESTS_SUPPORT_JSON_H
#define KESA_TESTS_SUPPORT_JSON_H

#include <kesa/Payload.h>
#include <kesa/mimetypes.h>

#include <string>
#include <utility>

namespace kesa::test {

inline Payload json(std::string text)
{
    return Payload::createFromString(std::move(text), mimetypes::JSON);
}

} // namespace kesa::test

#endif
