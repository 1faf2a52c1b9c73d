#ifndef KESA_COMMADAPTER_BACKEND_LOCALSTREAM_H
#define KESA_COMMADAPTER_BACKEND_LOCALSTREAM_H

#include "transport/ITransport.h"

#include <comm/Reactor.h>

#include <memory>
#include <utility>

namespace kesa::commadapter {

/// The two ends of a connection of this process with itself. Bytes go through the loop's queue, so local requests and
/// answers keep the same rules, threads and order as all others: it is the same code that handles them.
std::pair<std::unique_ptr<transport::IStream>, std::unique_ptr<transport::IStream>>
makeLocalStreams(const std::shared_ptr<comm::Reactor>& loop);

} // namespace kesa::commadapter

#endif
