#ifndef KESA_EASE_SERVICERULES_H
#define KESA_EASE_SERVICERULES_H

#include <gates/Table.h>
#include <kesa/Request.h>
#include <kesa/Response.h>
#include <refusals/RefusalTraces.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesa {

/// The rules that a service has from its code: who may ask what of it. Not for several threads at once.
class ServiceRules {
public:
    /// One more rule, or a list of them, as JSON. `place` is where that stands, for people. Of what is no rule nobody
    /// knows what was meant: it closes the service to others, and a trace says why.
    void allow(std::string_view rules, const std::string& place);

    /// What to answer to a request of another process that no rule lets in; none: it may be served.
    std::optional<Response> refusal(const Request& request);
    /// Whether somebody asks what the rules say.
    static bool areAskedBy(const Request& request) noexcept;
    /// Of himself to everybody, of others to root and to the process's own user.
    Response explain(const Request& request);

private:
    access::Table& table();

    std::vector<access::Rule> m_rules;
    std::string m_problem;
    std::unique_ptr<access::Table> m_table; ///< of these rules, once it is asked for
    access::RefusalTraces m_traces;
};

} // namespace kesa

#endif
