#ifndef KESA_EXAMPLES_SYSTEM_FEED_H
#define KESA_EXAMPLES_SYSTEM_FEED_H

#include <kesa/GenericObject.h>
#include <kesa/ease/ResourceHandler.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace examples {

/// One measured quantity as a service: "retrieve" on "/" answers once, or, when a persistent stream is asked for, with
/// every new sample until the client cancels.
class Feed {
public:
    Feed(std::string path, std::function<kesa::GenericObject()> read);

    const std::string& path() const noexcept { return m_path; }
    /// The service object to register. It may outlive the feed no longer than any backend calls it.
    std::shared_ptr<kesa::IKesaApi> service() const { return m_service; }

    /// Takes a sample and sends it to those who follow. Any thread, one at a time.
    void sample();

private:
    struct Follower {
        kesa::Responder responder;
        std::string mimeType;
    };
    void serve(const kesa::Request& request, kesa::Responder responder);

    const std::string m_path;
    const std::function<kesa::GenericObject()> m_read;
    std::shared_ptr<kesa::ResourceHandler> m_service;
    std::mutex m_mutex;
    kesa::GenericObject m_latest;      ///< under `m_mutex`
    std::vector<Follower> m_followers; ///< under `m_mutex`
};

} // namespace examples

#endif
