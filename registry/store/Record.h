#ifndef KESA_REGISTRY_STORE_RECORD_H
#define KESA_REGISTRY_STORE_RECORD_H

#include <kesa/Payload.h>
#include <kesa/optional.h>
#include <kesa/serviceregistry/Query.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <kesa/serviceregistry/ServiceDef.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kesa::registry {

using serviceregistry::Query;
using serviceregistry::RegistryUpdate;
using serviceregistry::ServiceDef;
using UpdateType = RegistryUpdate::UpdateTypeEnum;

/// A service as the registry knows it. Shared by everybody who is told of it, and not changed once it is in the store.
struct Record {
    ServiceDef serviceDef;
    std::size_t bytes = 0;    ///< on the wire, in the longer of its forms
    std::size_t memory = 0;   ///< about
    std::int64_t uid = -1;    ///< of who registers it, by the kernel's word
    std::uint64_t number = 0; ///< differs for each; 0: not counted

    const std::string& path() const noexcept { return serviceDef.path.toString(); }
};
/// What an update takes besides its record: `{"updateType":"REMOVED","element":},`
inline constexpr std::size_t UPDATE_BYTES = 40;
using RecordPtr = std::shared_ptr<const Record>;

/// Of locators, versions, formats and scopes in a record, each: what each of many watchers has to be held against.
inline constexpr std::size_t MAX_LIST_ENTRIES = 64;

/// The realm a watcher's `ipc` locators lead into. Null: it is shown everything.
using Realm = std::shared_ptr<const std::string>;

/// Whether the watcher can reach the service: not when all its locators are `ipc` ones of other realms. A runtime ends
/// a whole query on the first match it cannot reach.
bool isVisible(const ServiceDef& serviceDef, const Realm& realm);

/// The JSON form, and the size in the longer of the JSON and qelbin forms. True when it cannot be written, with the
/// reason in `obr::ErrorStorage`.
[[nodiscard]] bool write(const ServiceDef& serviceDef, Payload& json, std::size_t& bytes);
/// Only the size.
[[nodiscard]] bool measure(const Query& query, std::size_t& bytes);

/// Shares the record.
RegistryUpdate makeUpdate(UpdateType type, const RecordPtr& record);

} // namespace kesa::registry

#endif
