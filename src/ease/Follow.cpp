#include "Follow.h"

#include <utility>

namespace kesa {

/// Of one stream: of those before the last nothing counts any more.
class Follow::Handler final : public IResponseHandler<Response> {
public:
    Handler(std::shared_ptr<Follow> follow, unsigned number) : m_follow(std::move(follow)), m_number(number) {}
    bool onNext(const Response& response) noexcept override { return m_follow->onNext(m_number, response); }
    void onError(const Response& error) noexcept override { m_follow->onError(m_number, error); }
    void onCompleted() noexcept override { m_follow->onCompleted(m_number); }

private:
    const std::shared_ptr<Follow> m_follow;
    const unsigned m_number;
};

Follow::Follow(Request request, std::shared_ptr<OpenRequest> client)
    : m_request(std::move(request)), m_client(std::move(client))
{}

void Follow::ask(const std::shared_ptr<IKesaApi>& api)
{
    if (isOver()) {
        return;
    }
    unsigned number = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        number = ++m_number;
        m_asked = {api, IKesaApi::UNDEFINED_REQUEST_HANDLE};
        m_values = 0;
    }
    void* const handle = api->request(m_request, std::make_unique<Handler>(shared_from_this(), number));
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_number == number) {
            m_asked.handle = handle;
            return;
        }
    }
    Asked{api, handle}.cancel(); // lost, ended or asked for again meanwhile
}

Asked Follow::lost()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_number;
    return std::exchange(m_asked, Asked());
}

void Follow::end()
{
    m_client->withdraw();
    lost().cancel();
}

bool Follow::isCurrent(unsigned number) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_number == number;
}

bool Follow::onNext(unsigned number, const Response& response)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_number != number) {
            return true;
        }
        ++m_values;
    }
    return m_client->onNext(response);
}

/// The 503 of a lost connection comes before the news of the loss, so it can not be told from one of a service that is
/// still connected. Asking again can: without a connection it fails, and the next connection asks anyway. A stream that
/// ends with its first value would only be asked for for ever.
void Follow::onError(unsigned number, const Response& error)
{
    constexpr unsigned WORTH_ASKING_AGAIN = 2;
    std::shared_ptr<IKesaApi> api;
    unsigned values = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_number != number) {
            return;
        }
        api = std::exchange(m_asked, Asked()).api;
        values = m_values;
    }
    if (error.getStatus() != 503) {
        m_client->onError(error);
    } else if (values >= WORTH_ASKING_AGAIN) {
        ask(api);
    }
}

void Follow::onCompleted(unsigned number)
{
    if (isCurrent(number)) {
        static_cast<void>(lost());
        m_client->onCompleted();
    }
}

} // namespace kesa
