#ifndef KESA_EXAMPLES_SYSTEM_PROVIDE_H
#define KESA_EXAMPLES_SYSTEM_PROVIDE_H

#include "Feed.h"

#include <memory>
#include <vector>

namespace examples {

using Feeds = std::vector<std::unique_ptr<Feed>>;

/// Is the process `name`: registers the feeds, samples them four times a second, and ends on SIGINT and SIGTERM. The
/// exit code for `main`.
int provideUntilSignal(const char* name, const Feeds& feeds);

} // namespace examples

#endif
