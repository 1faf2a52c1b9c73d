#include "backend/readCommSettings.h"
#include "transport/RunDirectory.h"

#include <kesa/commadapter/chosenRunDirectory.h>

namespace kesa::commadapter {

std::string chosenRunDirectory()
{
    return transport::RunDirectory(readCommSettings().runDir).path();
}

} // namespace kesa::commadapter
