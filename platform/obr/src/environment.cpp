#include <obr/environment.h>

#include <cstdlib>

namespace obr {

std::string environment(const std::string& name)
{
    const char* const value = ::secure_getenv(name.c_str());
    return value != nullptr ? value : "";
}

} // namespace obr
