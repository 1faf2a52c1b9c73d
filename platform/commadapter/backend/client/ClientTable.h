#ifndef KESA_COMMADAPTER_BACKEND_CLIENT_CLIENTTABLE_H
#define KESA_COMMADAPTER_BACKEND_CLIENT_CLIENTTABLE_H

#include "backend/client/ClientConnection.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kesa::commadapter {

/// The connections to other endpoints, one each. One that no client object uses any more lingers for a while. An
/// endpoint with a realm and one without are two: when the run directory is made anew, only the latter leads there.
class ClientTable : public std::enable_shared_from_this<ClientTable> {
public:
    ClientTable(std::shared_ptr<IoLoop> loop, MakeHello makeHello, OpenLocal openLocal);

    /// The connection to an endpoint, with one more user. Any thread.
    std::shared_ptr<ClientConnection> use(const Destination& destination);
    /// Of the first `most` of them; answers how many there are. Loop only.
    std::size_t addFacts(std::vector<ConnectionFacts>& facts, std::size_t most);
    /// Ends all of them. Loop only.
    void stop();
    /// After the loop's end, any thread: drops what a loop that was killed has left.
    void abandon();

private:
    struct Entry {
        std::shared_ptr<ClientConnection> connection;
        std::size_t users = 0;
    };
    using Entries = std::map<std::string, Entry>;

    void unused(ClientConnection& connection, bool atOnce);
    void endUnused(const std::string& key);
    Entries takeAll();

    const std::shared_ptr<IoLoop> m_loop;
    const MakeHello m_makeHello;
    const OpenLocal m_openLocal;
    std::mutex m_lock; ///< client objects are made in any thread, connections go on the loop
    Entries m_entries; ///< by endpoint; with the lock held
};

} // namespace kesa::commadapter

#endif
