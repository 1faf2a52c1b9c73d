#ifndef KESA_TESTS_SYSTEM_ACTOR_USED_H
#define KESA_TESTS_SYSTEM_ACTOR_USED_H

#include "Clients.h"

#include <kesa/ease/use.h>
#include <kesa/runtime/v02/IKesaRuntime.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

/// A client that follows its service and that one's feed, of which it tells what is lost or repeated.
class Used {
public:
    Used(kesa::runtime::v02::IKesaRuntime& runtime, const std::string& path)
        : m_path(path), m_client(kesa::use(runtime, path)),
          m_feed(m_client->follow(kesa::Request("retrieve", "/feed"),
                                  kesa::handler<kesa::Response>(
                                      [this](const kesa::Response& response) {
                                          take(std::stoull(std::string(response.getPayload().text())));
                                      },
                                      [path](const kesa::Response& error) {
                                          say("broken " + path + ' ' + kesa::Response::getErrorMessageWithCode(error));
                                      })))
    {
        m_client->onChange([path](bool isConnected) { say((isConnected ? "there " : "gone ") + path); });
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
            say("began " + m_path); // its first number is whatever the feed has come to
        } else if (m_last != 0 && value != m_last + 1) {
            say("gap " + m_path + ' ' + std::to_string(m_last) + ' ' + std::to_string(value));
        }
        m_last = value;
        tellReached();
    }
    void tellReached()
    {
        if (m_target != 0 && m_last >= m_target) {
            say("reached " + m_path + ' ' + std::to_string(m_target));
            m_target = 0;
        }
    }

    const std::string m_path;
    std::mutex m_mutex;
    std::uint64_t m_last = 0;   ///< under `m_mutex`
    std::uint64_t m_target = 0; ///< under `m_mutex`
    const std::shared_ptr<kesa::Client> m_client;
    const kesa::Disposable m_feed;
};

#endif
