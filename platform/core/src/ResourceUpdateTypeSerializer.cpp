#include <kesa/ResourceUpdateTypeSerializer.h>

namespace kesa {

std::optional<std::string> ResourceUpdateTypeSerializer::enumToValue(ResourceUpdateType type)
{
    switch (type) {
    case ResourceUpdateType::eADDED:
        return "ADDED";
    case ResourceUpdateType::eMODIFIED:
        return "MODIFIED";
    case ResourceUpdateType::eREMOVED:
        return "REMOVED";
    }
    return std::nullopt;
}

} // namespace kesa
