#ifndef KESA_COMMADAPTER_BACKEND_SERVER_DOORKEEPER_H
#define KESA_COMMADAPTER_BACKEND_SERVER_DOORKEEPER_H

#include <gates/Table.h>
#include <kesa/Request.h>
#include <kesa/RequestContext.h>
#include <kesa/Response.h>
#include <refusals/RefusalTraces.h>
#include <rules/IdentityNames.h>
#include <rules/systemAccounts.h>
#include <util/config/Value.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kesa::commadapter {

struct Target;

/// Lets other processes in, or not, as the table of this one says. Loop only.
class Doorkeeper {
public:
    /// `table` null: everybody may everything.
    explicit Doorkeeper(std::shared_ptr<access::Table> table) : m_table(std::move(table)) {}

    /// Any thread.
    bool hasTable() const noexcept { return m_table != nullptr; }
    bool isTableUnreadable() const noexcept { return m_table && m_table->isUnreadable(); }
    /// With a table: see there. What is idle is said by `traceIdleRules`.
    bool noteService(const std::string& path) { return m_table->noteService(path); }
    void traceIdleRules();
    /// What to answer to a request of another process; none: it may. A client is judged once for each of its targets.
    std::optional<Response> refusal(Target& target, const RequestContext& client, const Request& request);

    /// What those may ask who stand for `who`: `clients` of that name, else a user of this machine. For root, the own
    /// user, and of himself for everybody, as `asker` says: null is this process.
    Response explain(const util::config::Value& question, const RequestContext* asker,
                     const std::vector<const RequestContext*>& clients);

private:
    access::Identity identityOf(const RequestContext& client) const;
    std::vector<access::Identity> identitiesOf(const std::string& who, const RequestContext* asker,
                                               const std::vector<const RequestContext*>& clients);

    const std::shared_ptr<access::Table> m_table;
    access::IdentityNames m_names{&access::systemAccounts()};
    access::RefusalTraces m_traces;
};

} // namespace kesa::commadapter

#endif
