#include <kesa/ease/ChangeLock.h>

#include <obr/GlobalErrorHandler.h>

#include <stdexcept>

namespace kesa::detail {

namespace {

const void* thisThread()
{
    static thread_local const char own = 0;
    return &own;
}

} // namespace

void ChangeLock::lock()
{
    constexpr const char* COMPLAINT =
        "a kesa::Property is changed from inside its own 'check', or from the handler of one of its followers in this "
        "process, and would wait for itself: 'check' only looks; what follows from a change belongs into 'onChange'";
    if (m_owner == thisThread()) {
        obr::GlobalErrorHandler::doAssert(false, "m_owner != thisThread()", __FILE__, __LINE__, __func__, COMPLAINT);
        throw std::logic_error(COMPLAINT);
    }
    m_mutex.lock();
    m_owner = thisThread();
}

void ChangeLock::unlock()
{
    m_owner = nullptr;
    m_mutex.unlock();
}

} // namespace kesa::detail
