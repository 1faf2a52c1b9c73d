#include <obr/environment.h>

#include <cstdlib>
#include <sys/auxv.h>

namespace obr {

std::string environment(const std::string& name)
{
    const char* const value = ::secure_getenv(name.c_str());
    return value != nullptr ? value : "";
}

bool hasMoreRightsThanStarter() noexcept
{
    return ::getauxval(AT_SECURE) != 0;
}

} // namespace obr
