#ifndef KESA_EXAMPLES_SYSTEM_FEED_H
#define KESA_EXAMPLES_SYSTEM_FEED_H

#include <kesa/GenericObject.h>
#include <kesa/ease/Topic.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace examples {

/// One measured quantity as a service: its samples are the topic at "/".
class Feed {
public:
    Feed(std::string path, std::function<kesa::GenericObject()> read) : m_path(std::move(path)), m_read(std::move(read))
    {
        m_samples.serve(*m_service, "/");
        sample();
    }

    const std::string& path() const noexcept { return m_path; }
    /// The service object to register.
    std::shared_ptr<kesa::IKesaApi> service() const { return m_service; }

    /// Takes a sample and sends it to those who follow. Any thread, one at a time.
    void sample() { m_samples.publish(m_read()); }

private:
    const std::string m_path;
    const std::function<kesa::GenericObject()> m_read;
    const std::shared_ptr<kesa::ResourceHandler> m_service = std::make_shared<kesa::ResourceHandler>();
    kesa::Topic<kesa::GenericObject> m_samples;
};

} // namespace examples

#endif
