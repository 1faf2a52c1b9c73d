#ifndef KESA_IHEADERSOURCE_H
#define KESA_IHEADERSOURCE_H

#include <kesa/GenericObject.h>

namespace kesa {

/// Headers as they arrived, decoded when somebody asks. Immutable; any thread.
class KESA_API IHeaderSource {
public:
    virtual ~IHeaderSource();
    virtual GenericObject decode() const = 0;
};

} // namespace kesa

#endif
