#ifndef KESA_SERVICEREGISTRY_WRITEONCE_H
#define KESA_SERVICEREGISTRY_WRITEONCE_H

#include <kesa/Payload.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <kesa/serviceregistry/ServiceDef.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace kesa::serviceregistry {

/// What `ServiceRegistryService` need not write again: one update for many watchers, a record that was written before.
/// Not thread-safe.
class KESA_API WriteOnce {
public:
    WriteOnce() = default;
    WriteOnce(const WriteOnce&) = delete;
    WriteOnce& operator=(const WriteOnce&) = delete;

    /// While one lives, what is answered on this thread uses `once`, which forgets everything afterwards. Who makes it
    /// promises that no record or element is changed meanwhile. One at a time on a thread.
    class KESA_API Use {
    public:
        explicit Use(WriteOnce& once) noexcept;
        ~Use();
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
    };
    /// What this thread uses; null: nothing.
    static WriteOnce* current() noexcept;

    /// An update as it is, or as the only one of a list.
    enum class Form : bool { eALONE, eLIST };
    /// Null: it has not been written.
    const Payload* find(const RegistryUpdate& update, Form form, std::string_view mimeType) const noexcept;
    void keep(const RegistryUpdate& update, Form form, const Payload& written);

    /// Only of the last record that was kept, which lives until all is forgotten.
    const Payload* find(const ServiceDef& record, std::string_view mimeType) const noexcept;
    void keep(const ServiceDef& record, const Payload& written);

private:
    void forget() noexcept;

    struct Written {
        RegistryUpdate update; ///< keeps the element, so that no other one gets its address
        Form form = Form::eALONE;
        Payload payload;
    };
    std::array<Written, 4> m_written; ///< two forms, two formats
    std::size_t m_next = 0;
    const ServiceDef* m_record = nullptr;
    Payload m_writtenRecord;
};

} // namespace kesa::serviceregistry

#endif
