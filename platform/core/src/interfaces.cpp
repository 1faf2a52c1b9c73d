#include <kesa/IClientConnectionListener.h>
#include <kesa/IHeaderSource.h>
#include <kesa/IKesaApi.h>
#include <kesa/IPeer.h>
#include <kesa/IResourceHandler.h>

namespace kesa {

// Out of line, so that each interface has one table and one type identity in the library.
IClientConnectionListener::~IClientConnectionListener() = default;
IHeaderSource::~IHeaderSource() = default;
IKesaApi::~IKesaApi() = default;
IPeer::~IPeer() = default;
IResourceHandler::~IResourceHandler() = default;

const GenericObject& IHeaderSource::headers() const
{
    std::call_once(m_once, [this] { m_headers = decode(); });
    return m_headers;
}

} // namespace kesa
