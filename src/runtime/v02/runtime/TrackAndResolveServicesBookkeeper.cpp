#include <runtime/v02/runtime/TrackAndResolveServicesBookkeeper.h>

#include <runtime/v02/runtime/channels.h>

#include <utility>

namespace kesa::runtime::v02 {

TrackAndResolveServicesBookkeeper::TrackAndResolveServicesBookkeeper(std::unique_ptr<ResolvedServicesHandler>&& client)
    : m_client(std::move(client))
{}

bool TrackAndResolveServicesBookkeeper::onNext(const ResolvedServiceState& result)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::string& path = result.serviceDef.path.toString();
    KESA_TRACE(MAIN_CHANNEL, 2, "[TrackAndResolveServicesBookkeeper onNext] service='%s'", path.c_str());
    const bool isPresent = result.api.has_value();
    const auto known = m_present.find(path);
    const bool wasPresent = known != m_present.end() && known->second;
    if (isPresent == wasPresent) {
        return false;
    }
    m_present[path] = isPresent;
    return m_client->onNext(result);
}

void TrackAndResolveServicesBookkeeper::onError(const Response& error)
{
    m_client->onError(error);
}

void TrackAndResolveServicesBookkeeper::onCompleted()
{
    m_client->onCompleted();
}

} // namespace kesa::runtime::v02
