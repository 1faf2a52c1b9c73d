#include "Answers.h"

#include <kesa/ease/handler.h>

#include <utility>

namespace kesactl {

Answers::Answers(std::shared_ptr<kesa::IKesaApi> client, const kesa::Request& request) : m_client(std::move(client))
{
    const auto keep = [state = m_state](Kind kind, const kesa::Response& response) {
        const std::lock_guard lock(state->mutex);
        state->answers.push_back({kind, response});
        state->changed.notifyAll();
    };
    auto handler = kesa::handler<kesa::Response>(
        [keep](const kesa::Response& response) { keep(Kind::eVALUE, response); },
        [keep](const kesa::Response& error) { keep(Kind::eERROR, error); }, [keep] { keep(Kind::eCOMPLETED, {}); });
    m_request = m_client->request(request, std::move(handler));
}

Answers::~Answers()
{
    m_client->cancel(m_request);
}

Answers::Answer Answers::next(comm::TimeNs deadline)
{
    std::unique_lock lock(m_state->mutex);
    if (!comm::waitFor(
            m_state->changed, lock, [this] { return !m_state->answers.empty() || m_state->isInterrupted; }, deadline)) {
        return {Kind::eTIMED_OUT, {}};
    }
    if (m_state->isInterrupted) {
        return {Kind::eINTERRUPTED, {}};
    }
    Answer answer = std::move(m_state->answers.front());
    m_state->answers.pop_front();
    return answer;
}

void Answers::interrupt()
{
    const std::lock_guard lock(m_state->mutex);
    m_state->isInterrupted = true;
    m_state->changed.notifyAll();
}

} // namespace kesactl
