#ifndef KESA_GENERICOBJECT_H
#define KESA_GENERICOBJECT_H

#include <util/config/Dictionary.h>

namespace kesa {

/// Keys with values of any type: metainfo, headers.
using GenericObject = util::config::Dictionary;

} // namespace kesa

#endif
