#ifndef KESA_RUNTIME_V02_QUERYUPDATEBOOKKEEPER_H
#define KESA_RUNTIME_V02_QUERYUPDATEBOOKKEEPER_H

#include <runtime/v02/runtime/HandlerTypes.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>

namespace kesa::runtime::v02 {

/// Keeps the order of a tracking stream, per service: `eADDED`, any number of `eMODIFIED`, `eREMOVED`. What breaks it
/// is dropped as a duplicate. A stream that has announced nothing, or whose every service was removed, is in its
/// initial state, in which anything but `eADDED` is dropped.
class QueryUpdateBookkeeper final : public TrackingHandler {
public:
    /// `number` tells the trackers of one path apart whose addresses are the same in turn.
    explicit QueryUpdateBookkeeper(std::unique_ptr<TrackingHandler>&& inner, std::uint64_t number = 0);

    bool onNext(const ServiceUpdate& update) override;
    void onError(const Response& error) override;
    void onCompleted() override;

    std::uint64_t number() const noexcept { return m_number; }
    bool hasAnnounced(const std::string& path) const { return announcedServices.count(path) != 0; }

private:
    bool initialUpdate(const std::string& path, const ServiceUpdate& update);
    bool added(const std::string& path, const ServiceUpdate& update);
    bool modified(const std::string& path, const ServiceUpdate& update);
    bool removed(const std::string& path, const ServiceUpdate& update);

    std::unique_ptr<TrackingHandler> m_inner;
    std::set<std::string> announcedServices;
    const std::uint64_t m_number;
};

} // namespace kesa::runtime::v02

#endif
