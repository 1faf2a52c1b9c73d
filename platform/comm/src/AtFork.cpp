// The table's lock is held across `fork`, so the child finds the table whole; between `fork` and the end of the child's
// handler only functions that are safe in a signal handler are called.
#include <comm/AtFork.h>

#include <obr/GlobalErrorHandler.h>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

namespace comm {

namespace {

struct Table {
    std::mutex mutex; ///< of `descriptors`: loops are made and end in any thread, and a fork finds the list whole
    std::vector<int> descriptors;
    std::atomic<unsigned> generation{1};
};

Table& table();

void prepare()
{
    table().mutex.lock();
}

void inParent()
{
    table().mutex.unlock();
}

void inChild()
{
    Table& own = table();
    own.generation.fetch_add(1, std::memory_order_relaxed);
    for (const int descriptor : own.descriptors) {
        ::close(descriptor);
    }
    own.descriptors.clear();
    own.mutex.unlock();
}

Table* makeTable()
{
    if (::pthread_atfork(prepare, inParent, inChild) != 0) {
        obr::GlobalErrorHandler::doAbort(__FILE__, __LINE__, __func__, "no memory for fork handlers");
    }
    return new Table;
}

// Never destroyed: loops may run until the process is gone.
Table& table()
{
    static Table& instance = *makeTable();
    return instance;
}

} // namespace

int AtFork::open(const std::function<int()>& open)
{
    Table& own = table();
    const std::lock_guard lock(own.mutex);
    own.descriptors.push_back(-1); // before there is something to lose
    const int descriptor = open();
    if (descriptor >= 0) {
        own.descriptors.back() = descriptor;
    } else {
        own.descriptors.pop_back();
    }
    return descriptor;
}

void AtFork::close(int descriptor)
{
    Table& own = table();
    const std::lock_guard lock(own.mutex);
    const auto found = std::find(own.descriptors.rbegin(), own.descriptors.rend(), descriptor);
    if (found != own.descriptors.rend()) {
        *found = own.descriptors.back();
        own.descriptors.pop_back();
    }
    ::close(descriptor);
}

unsigned AtFork::generation() noexcept
{
    // It changes in the child of a fork alone, before that has a second thread.
    return table().generation.load(std::memory_order_relaxed);
}

} // namespace comm
