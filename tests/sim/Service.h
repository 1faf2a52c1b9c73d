#ifndef KESA_TESTS_SIM_SERVICE_H
#define KESA_TESTS_SIM_SERVICE_H

#include "Observers.h"
#include "Random.h"

#include <kesa/IKesaApi.h>

#include <memory>
#include <utility>
#include <vector>

namespace kesa::sim {

/// Answers some requests at once, keeps others open, ends some later, drops some unfinished. A request to "/who" is
/// answered with the claim's number.
class Service final : public IKesaApi {
public:
    static constexpr const char* WHO = "/who";

    Service(Verdict& verdict, std::shared_ptr<Belief> registration, std::uint64_t seed);

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override;
    void cancel(void* handle) override;

    /// Sends a value, or ends a stream, from the test's thread.
    void answerOne();
    void dropAll();

private:
    void checkAlive();

    Verdict& m_verdict;
    std::shared_ptr<Belief> m_registration;
    SeededRandom m_random;
    std::uint64_t m_handles = 0;
    std::vector<std::pair<std::uint64_t, std::unique_ptr<IResponseHandler<Response>>>> m_open;
};

} // namespace kesa::sim

#endif
