#ifndef KESA_RUNTIME_V02_TRACKANDRESOLVESERVICESBOOKKEEPER_H
#define KESA_RUNTIME_V02_TRACKANDRESOLVESERVICESBOOKKEEPER_H

#include <runtime/v02/runtime/HandlerTypes.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace kesa::runtime::v02 {

/// Keeps the stream of a subscription to many services, per service, to results with and without a client object in
/// turn, beginning with one that has it.
class TrackAndResolveServicesBookkeeper final : public ResolvedServicesHandler {
public:
    explicit TrackAndResolveServicesBookkeeper(std::unique_ptr<ResolvedServicesHandler>&& client);

    /// The client is called with the lock held, so that it hears of one result at a time.
    bool onNext(const ResolvedServiceState& result) override;
    void onError(const Response& error) override;
    void onCompleted() override;

private:
    std::unique_ptr<ResolvedServicesHandler> m_client;
    /// True: a present value is the last thing sent for that service.
    std::map<std::string, bool> m_present;
    std::mutex m_mutex; ///< guards `m_present`, also where who owns this gives it results on several threads
};

} // namespace kesa::runtime::v02

#endif
