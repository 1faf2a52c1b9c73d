#include <runtime/v02/runtime/QueryUpdateBookkeeper.h>

#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/channels.h>

#include <utility>

namespace kesa::runtime::v02 {

QueryUpdateBookkeeper::QueryUpdateBookkeeper(std::unique_ptr<TrackingHandler>&& inner, std::uint64_t number)
    : m_inner(std::move(inner)), m_number(number)
{}

bool QueryUpdateBookkeeper::onNext(const ServiceUpdate& update)
{
    const std::string& path = update.element.path.toString();
    if (announcedServices.empty()) {
        return initialUpdate(path, update);
    }
    switch (update.type) {
    case ResourceUpdateType::eADDED:
        return added(path, update);
    case ResourceUpdateType::eMODIFIED:
        return modified(path, update);
    case ResourceUpdateType::eREMOVED:
        return removed(path, update);
    }
    return true;
}

bool QueryUpdateBookkeeper::initialUpdate(const std::string& path, const ServiceUpdate& update)
{
    const int type = static_cast<int>(update.type);
    KESA_TRACE(MAIN_CHANNEL, 2, "[QueryUpdateBookkeeper onNext] initial update %s, %d", path.c_str(), type);
    if (update.type != ResourceUpdateType::eADDED) {
        // Comes from an answer that crossed a removal; there is nothing the client knows that it could concern.
        KESA_TRACE(MAIN_CHANNEL, 3,
                   "[QueryUpdateBookkeeper onNext] it is a registry  but it is workarounded for the moment %d", type);
        return false;
    }
    announcedServices.insert(path);
    KESA_TRACE(MAIN_CHANNEL, 2, "[QueryUpdateBookkeeper onNext] initial update %s", path.c_str());
    return m_inner->onNext(update);
}

bool QueryUpdateBookkeeper::added(const std::string& path, const ServiceUpdate& update)
{
    if (!announcedServices.insert(path).second) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[QueryUpdateBookkeeper onNext] ignore is duplicate %s", path.c_str());
        return false;
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[QueryUpdateBookkeeper onNext] flip in service lifetime %s", path.c_str());
    return m_inner->onNext(update);
}

bool QueryUpdateBookkeeper::modified(const std::string& path, const ServiceUpdate& update)
{
    if (!hasAnnounced(path)) {
        obr::GlobalErrorHandler::doAssert(false, "pos != announcedServices.end()", __FILE__, __LINE__, "onNext",
                                          "Received eModified on unknown Service");
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[QueryUpdateBookkeeper onNext] eMODIFIED %s", path.c_str());
    return m_inner->onNext(update);
}

bool QueryUpdateBookkeeper::removed(const std::string& path, const ServiceUpdate& update)
{
    if (announcedServices.erase(path) == 0) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[QueryUpdateBookkeeper onNext] ignore is duplicate %s", path.c_str());
        return false;
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[QueryUpdateBookkeeper onNext] erase %s", path.c_str());
    return m_inner->onNext(update);
}

void QueryUpdateBookkeeper::onError(const Response& error)
{
    m_inner->onError(error);
}

void QueryUpdateBookkeeper::onCompleted()
{
    m_inner->onCompleted();
}

} // namespace kesa::runtime::v02
