#ifndef COMM_EPOLLREACTOR_H
#define COMM_EPOLLREACTOR_H

#include <comm/Reactor.h>

#include <memory>
#include <string>

namespace comm {

/// The real I/O loop: a thread over epoll. It stops with its last owner.
std::shared_ptr<Reactor> makeEpollReactor(const std::string& name);

} // namespace comm

#endif
