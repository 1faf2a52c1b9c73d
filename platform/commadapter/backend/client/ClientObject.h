#ifndef KESA_COMMADAPTER_BACKEND_CLIENT_CLIENTOBJECT_H
#define KESA_COMMADAPTER_BACKEND_CLIENT_CLIENTOBJECT_H

#include "backend/client/ClientConnection.h"

#include <kesa/commadapter/KesaClientApi.h>

#include <memory>
#include <string>

namespace kesa::commadapter {

/// What the user of a service holds. Everything is shared with the connection, so it may outlive the backend.
class ClientObject final : public KesaClientApi {
public:
    ClientObject(std::shared_ptr<ClientConnection> connection, std::shared_ptr<ClientState> client)
        : m_connection(std::move(connection)), m_client(std::move(client))
    {}
    ~ClientObject() override { release(false); }
    ClientObject(const ClientObject&) = delete;
    ClientObject& operator=(const ClientObject&) = delete;

    void startConnect() override { m_connection->start(m_client); }
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        return m_connection->request(*m_client, request, std::move(handler));
    }
    void cancel(void* handle) override { m_connection->cancel(*m_client, handle); }

    std::string obstacle() const override { return m_connection->obstacle(*m_client); }

    void release(bool serviceRemoved) { m_connection->release(m_client, serviceRemoved); }

private:
    const std::shared_ptr<ClientConnection> m_connection;
    const std::shared_ptr<ClientState> m_client;
};

} // namespace kesa::commadapter

#endif
