#ifndef KESA_TESTS_ACTOR_CLIENTS_H
#define KESA_TESTS_ACTOR_CLIENTS_H

#include "Streams.h"

#include <kesa/IKesaApi.h>
#include <kesa/Request.h>
#include <kesa/Response.h>
#include <kesa/headers.h>
#include <kesa/reasonOf.h>
#include <kesa/responsesemantics.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace kesa::actor {

using ClientApi = std::shared_ptr<IKesaApi>;

/// Up to the first space: the rest of a value only makes it large.
inline std::string firstWord(std::string_view text)
{
    return std::string(text.substr(0, text.find(' ')));
}

/// What a request is answered through: value, error and completed of `stream`.
inline std::unique_ptr<IResponseHandler<Response>> printer(const Streams& streams, const Say& say,
                                                           const std::string& stream)
{
    return streams.make<Response>(
        stream,
        [stream, say](const Response& response) {
            say("value " + stream + ' ' + firstWord(response.getPayload().text()));
        },
        [stream, say](const Response& error) {
            const std::string reason = reasonOf(error);
            say("error " + stream + ' ' + std::to_string(error.getStatus()) + reason.substr(reason.find(' ')));
        },
        [stream, say] { say("completed " + stream); });
}

/// The client objects that are connected, by what they were resolved from: a locator or a path.
class Clients {
public:
    Clients(const Streams& streams, Say say) : m_streams(streams), m_say(std::move(say)) {}

    void connected(const std::string& what, const ClientApi& client)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_clients[what] = client;
        m_say("connected " + what);
        follow(what);
    }
    void lost(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_say("lost " + what);
        const auto followed = m_followed.find(what);
        if (followed != m_followed.end()) { // it may have been issued over the next connection
            m_clients[what]->cancel(std::exchange(followed->second.handle, nullptr));
            m_say("cancelled " + streamOf(*followed));
        }
        m_clients.erase(what);
    }
    /// As its user wants it; whoever follows it does so no longer.
    void drop(const std::string& what)
    {
        ClientApi dropped;
        const std::lock_guard<std::mutex> lock(m_mutex);
        dropped = std::exchange(m_clients[what], nullptr);
        m_clients.erase(what);
        m_followed.erase(what);
        m_say("dropped " + what);
    }
    void dropAll()
    {
        std::map<std::string, ClientApi> dropped;
        const std::lock_guard<std::mutex> lock(m_mutex);
        dropped.swap(m_clients);
        m_followed.clear();
    }
    ClientApi find(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_clients.find(what);
        return found == m_clients.end() ? nullptr : found->second;
    }
    /// Follows the feed from now on, and after each connection again, as "WHAT#1", "WHAT#2" and so on.
    void followAlways(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_followed.try_emplace(what);
        follow(what);
    }

private:
    struct Followed {
        int times = 0;
        void* handle = nullptr; ///< of the last time
    };

    static std::string streamOf(const std::pair<const std::string, Followed>& followed)
    {
        return followed.first + '#' + std::to_string(followed.second.times);
    }

    /// With the lock held, which no answer takes: a loss comes before the request or finds its handle.
    void follow(const std::string& what)
    {
        const auto followed = m_followed.find(what);
        const auto found = m_clients.find(what);
        if (followed == m_followed.end() || found == m_clients.end()) {
            return;
        }
        ++followed->second.times;
        const std::string stream = streamOf(*followed);
        m_say("issued " + stream);
        Request request("retrieve", "/feed");
        headers::appendResponseSemantic(request, responsesemantics::PERSISTENT_STREAM);
        followed->second.handle = found->second->request(request, printer(m_streams, m_say, stream));
    }

    const Streams& m_streams;
    const Say m_say;
    std::mutex m_mutex;
    std::map<std::string, ClientApi> m_clients; ///< under `m_mutex`
    std::map<std::string, Followed> m_followed; ///< under `m_mutex`
};

} // namespace kesa::actor

#endif
