#ifndef KESA_RESOURCEUPDATETYPESERIALIZER_H
#define KESA_RESOURCEUPDATETYPESERIALIZER_H

#include <kesa/ResourceUpdateType.h>
#include <obr/api.h>

#include <optional>
#include <string>

namespace kesa {

class KESA_API ResourceUpdateTypeSerializer {
public:
    /// "ADDED", "MODIFIED", "REMOVED"; absent beyond them.
    static std::optional<std::string> enumToValue(ResourceUpdateType type);
};

} // namespace kesa

#endif
