#ifndef KESA_TESTS_SYSTEM_ACTOR_CLIENTS_H
#define KESA_TESTS_SYSTEM_ACTOR_CLIENTS_H

#include <kesa/IKesaApi.h>
#include <kesa/Request.h>
#include <kesa/Response.h>
#include <kesa/ease/handler.h>
#include <kesa/headers.h>
#include <kesa/responsesemantics.h>

#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

using Client = std::shared_ptr<kesa::IKesaApi>;

/// Tells the test one event, as one line on stdout. Any thread.
inline void say(const std::string& event)
{
    const std::string line = event + '\n';
    static_cast<void>(::write(STDOUT_FILENO, line.data(), line.size()) < 0);
}

/// Up to the first space: the rest of a value only makes it large.
inline std::string firstWord(std::string_view text)
{
    return std::string(text.substr(0, text.find(' ')));
}

inline std::unique_ptr<kesa::IResponseHandler<kesa::Response>> printer(const std::string& stream)
{
    return kesa::handler<kesa::Response>(
        [stream](const kesa::Response& response) {
            say("value " + stream + ' ' + firstWord(response.getPayload().text()));
        },
        [stream](const kesa::Response& error) {
            say("error " + stream + ' ' + std::to_string(error.getStatus()) + ' ' + error.getErrorMessage());
        },
        [stream] { say("completed " + stream); });
}

/// The client objects that are connected, by what they were resolved from: a locator or a path.
class Clients {
public:
    void connected(const std::string& what, const Client& client)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_clients[what] = client;
        say("connected " + what);
        follow(what);
    }
    void lost(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        say("lost " + what);
        const auto followed = m_followed.find(what);
        if (followed != m_followed.end()) { // it may have been issued over the next connection
            m_clients[what]->cancel(std::exchange(followed->second.handle, nullptr));
            say("cancelled " + streamOf(*followed));
        }
        m_clients.erase(what);
    }
    Client find(const std::string& what)
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
        say("issued " + stream);
        kesa::Request request("retrieve", "/feed");
        kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::PERSISTENT_STREAM);
        followed->second.handle = found->second->request(request, printer(stream));
    }

    std::mutex m_mutex;
    std::map<std::string, Client> m_clients;    ///< under `m_mutex`
    std::map<std::string, Followed> m_followed; ///< under `m_mutex`
};

#endif
