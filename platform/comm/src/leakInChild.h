#ifndef COMM_LEAKINCHILD_H
#define COMM_LEAKINCHILD_H

#include <memory>
#include <utility>

namespace comm {

/// In the child of a fork, what a loop shares with its thread is never destroyed: the thread that waits on its
/// condition variable exists in the parent only, and destroying that here would wait for it for ever.
template <class T>
void leakInChild(std::shared_ptr<T>&& shared)
{
    static_cast<void>(new std::shared_ptr<T>(std::move(shared)));
}

} // namespace comm

#endif
