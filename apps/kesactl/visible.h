#ifndef KESACTL_VISIBLE_H
#define KESACTL_VISIBLE_H

#include <util/visible.h>

namespace kesactl {

using util::visible;
using util::visibleLines;

} // namespace kesactl

#endif
