#ifndef KESA_TESTS_SIM_LIAR_H
#define KESA_TESTS_SIM_LIAR_H

#include <comm/Reactor.h>
#include <transport/ITransport.h>
#include <transport/MemoryNetwork.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::sim {

inline constexpr const char* LIAR = "liar"; ///< its name, and that in its locators

/// A process that is only bytes on the simulated network: it says what it is told, and nothing holds it to a rule.
class Liar {
public:
    /// What it says to a frame; nothing: it closes the connection. On its loop.
    using Reply = std::function<std::optional<std::string>(std::string_view frame)>;

    /// Listens; `greeting` is what it says first to who connects to it, in its loop.
    Liar(commadapter::transport::MemoryNetwork& network, std::uint64_t group, std::function<std::string()> greeting,
         Reply reply);
    ~Liar();

    /// If the process listens; `reads`: what it answers, too.
    void connect(const std::string& process, std::string said, bool reads);
    /// On one of the connections, by whomever they were made, if there are any.
    void say(std::uint64_t choice, std::string said);

private:
    class Talk;
    void add(std::unique_ptr<commadapter::transport::IStream> stream, std::string said, bool reads);

    const std::shared_ptr<comm::Reactor> m_loop;
    const std::unique_ptr<commadapter::transport::ITransport> m_transport;
    const Reply m_reply;
    std::vector<std::unique_ptr<Talk>> m_talks;
};

} // namespace kesa::sim

#endif
