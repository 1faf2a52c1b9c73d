#ifndef KESA_TESTS_SIM_SERVICE_H
#define KESA_TESTS_SIM_SERVICE_H

#include "Call.h"
#include "Observers.h"
#include "Random.h"

#include <kesa/IKesaApi.h>

#include <map>
#include <memory>
#include <vector>

namespace kesa::sim {

/// Answers some requests at once, keeps others open, ends some later, drops some unfinished; what `Wish` names as it
/// says there. One request of a connection comes after the other, as they were issued.
class Service final : public IKesaApi {
public:
    /// Of process `group`; `largest`: how much it answers at most.
    Service(Verdict& verdict, Calls& calls, std::shared_ptr<Belief> registration, std::uint64_t group,
            std::size_t largest, std::uint64_t seed);

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override;
    void cancel(void* handle) override;

    /// Sends a value, or more than one, or ends a stream, from the test's thread.
    void answerOne();
    void dropAll();
    /// Of those that it has not ended itself, the first of which it should have heard the end; null when there is
    /// none. With the verdict's mutex held.
    std::shared_ptr<Call> overButOpen() const;
    const DrainedTasks& drained() const { return m_drained; }

private:
    void checkAlive();
    void checkTurn(const Call& call);
    void answerLarge(Call& call, IResponseHandler<Response>& handler);

    struct Open {
        std::uint64_t number = 0;
        std::shared_ptr<Call> call;
        std::unique_ptr<IResponseHandler<Response>> handler;
        std::shared_ptr<IPeer> peer; ///< null: this process
    };
    enum class End { eCOMPLETED, eERROR, eDROPPED };
    std::uint64_t draw(std::uint64_t bound);
    Open take(std::uint64_t number);
    void keep(Open open);
    void end(Open& open, End how);
    void feed(Open open);
    void waitUntilDrained(const Open& open);
    void runDrained(const std::shared_ptr<void>& task, std::uint64_t number);
    std::size_t underWayTo(const IPeer& peer) const;

    Verdict& m_verdict;
    Calls& m_calls;
    const std::shared_ptr<Belief> m_registration;
    const std::uint64_t m_group;
    const std::size_t m_largest;
    SeededRandom m_random;
    std::uint64_t m_handles = 0;
    std::vector<Open> m_open;
    DrainedTasks m_drained;
    std::map<const IPeer*, std::uint64_t> m_lastAsked; ///< by its connection
};

} // namespace kesa::sim

#endif
