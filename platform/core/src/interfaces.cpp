#include <kesa/IClientConnectionListener.h>
#include <kesa/IHeaderSource.h>
#include <kesa/IKesaApi.h>
#include <kesa/IPeer.h>
#include <kesa/IResourceHandler.h>

#include <memory>

namespace kesa {

// Out of line, so that each interface has one table and one type identity in the library.
IClientConnectionListener::~IClientConnectionListener() = default;
IHeaderSource::~IHeaderSource()
{
    delete m_headers.load(std::memory_order_relaxed); // nobody else has the object any more
}
IKesaApi::~IKesaApi() = default;
IPeer::~IPeer() = default;
IResourceHandler::~IResourceHandler() = default;

const GenericObject& IHeaderSource::headers() const
{
    // No lock, and no `call_once`, which asks the kernel to wake somebody each time: where two threads ask at once,
    // both decode, and what the first one has stays.
    const GenericObject* headers = m_headers.load(std::memory_order_acquire);
    if (headers == nullptr) {
        auto decoded = std::make_unique<const GenericObject>(decode());
        if (m_headers.compare_exchange_strong(headers, decoded.get(), std::memory_order_acq_rel)) {
            headers = decoded.release();
        }
    }
    return *headers;
}

} // namespace kesa
