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
        std::unique_lock<std::mutex> lock(m_mutex);
        m_clients[what] = client;
        say("connected " + what);
        follow(lock, what);
    }
    void lost(const std::string& what)
    {
        say("lost " + what);
        const std::lock_guard<std::mutex> lock(m_mutex);
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
        std::unique_lock<std::mutex> lock(m_mutex);
        m_followed.try_emplace(what, 0);
        follow(lock, what);
    }

private:
    void follow(std::unique_lock<std::mutex>& lock, const std::string& what)
    {
        const auto followed = m_followed.find(what);
        const auto found = m_clients.find(what);
        if (followed == m_followed.end() || found == m_clients.end()) {
            return;
        }
        const std::string stream = what + '#' + std::to_string(++followed->second);
        const Client client = found->second;
        lock.unlock();
        say("issued " + stream);
        kesa::Request request("retrieve", "/feed");
        kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::PERSISTENT_STREAM);
        client->request(request, printer(stream));
    }

    std::mutex m_mutex;
    std::map<std::string, Client> m_clients; ///< under `m_mutex`
    std::map<std::string, int> m_followed;   ///< how often it was followed; under `m_mutex`
};

#endif
