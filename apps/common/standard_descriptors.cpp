#include "standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace apps {

void holdStandardDescriptors()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) < 0) {
            // Gets the lowest free number, which is this one.
            static_cast<void>(::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY));
        }
    }
}

} // namespace apps
