#ifndef COMM_WHYDEAF_H
#define COMM_WHYDEAF_H

#include <comm/LoopHold.h>

#include <memory>
#include <string>
#include <vector>

namespace comm {

/// Who has held one of these loops of this process for longer than a callback may take, for how long, and what to do:
/// one sentence for who waits for news that come over them. Empty when nobody has. Any thread.
KESA_API std::string whyDeaf(const std::vector<std::shared_ptr<const LoopHold>>& holds);

} // namespace comm

#endif
