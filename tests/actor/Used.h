#ifndef KESA_TESTS_ACTOR_USED_H
#define KESA_TESTS_ACTOR_USED_H

#include "Streams.h"

#include <kesa/Request.h>
#include <kesa/Response.h>
#include <kesa/ease/use.h>
#include <kesa/runtime/v02/IKesaRuntime.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace kesa::actor {

/// A client that follows its service and that one's feed, of which it tells what is lost or repeated.
class Used {
public:
    Used(runtime::v02::IKesaRuntime& runtime, const std::string& path, const Streams& streams, Say say)
        : m_path(path), m_say(std::move(say)), m_client(use(runtime, path)),
          m_feed(m_client->follow(
              Request("retrieve", "/feed"),
              streams.make<Response>(
                  path + "/feed",
                  [this](const Response& response) { take(std::stoull(std::string(response.getPayload().text()))); },
                  [this](const Response& error) {
                      m_say("unfollowed " + m_path + ' ' + Response::getErrorMessageWithCode(error));
                  })))
    {
        m_client->onChange([this](bool isConnected) { m_say((isConnected ? "there " : "gone ") + m_path); });
    }

    void reach(std::uint64_t value)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_target = value;
        tellReached();
    }

private:
    void take(std::uint64_t value)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (value == 0) {
            m_say("began " + m_path); // its first number is whatever the feed has come to
        } else if (m_last != 0 && value != m_last + 1) {
            m_say("gap " + m_path + ' ' + std::to_string(m_last) + ' ' + std::to_string(value));
        }
        m_last = value;
        tellReached();
    }
    void tellReached()
    {
        if (m_target != 0 && m_last >= m_target) {
            m_say("reached " + m_path + ' ' + std::to_string(m_target));
            m_target = 0;
        }
    }

    const std::string m_path;
    const Say m_say;
    std::mutex m_mutex;
    std::uint64_t m_last = 0;   ///< under `m_mutex`
    std::uint64_t m_target = 0; ///< under `m_mutex`
    const std::shared_ptr<Client> m_client;
    const Disposable m_feed;
};

} // namespace kesa::actor

#endif
