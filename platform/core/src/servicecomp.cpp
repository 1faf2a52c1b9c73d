#include <kesa/mimetypes.h>
#include <kesa/servicecomp.h>

#include "src/Replaceable.h"

namespace kesa::servicecomp {

namespace {

Replaceable<std::string(const Request&)>& mimeTypeFunction()
{
    static auto& function = *new Replaceable<std::string(const Request&)>;
    return function;
}

} // namespace

void overrideMimeTypeFunc(MimeTypeFunction function)
{
    mimeTypeFunction().set(std::move(function));
}

std::string mimeTypeFor(const Request& request)
{
    const auto function = mimeTypeFunction().get();
    return function ? (*function)(request) : std::string(mimetypes::JSON);
}

} // namespace kesa::servicecomp
