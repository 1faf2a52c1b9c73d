#ifndef KESA_SERVICEREGISTRY_WRITEONCE_H
#define KESA_SERVICEREGISTRY_WRITEONCE_H

#include <kesa/Payload.h>
#include <kesa/serviceregistry/RegistryUpdate.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace kesa::serviceregistry {

/// While one lives, what `ServiceRegistryService` sends of one update to many watchers on this thread is written once
/// for each format. Who makes it promises that no element is changed meanwhile. One at a time on a thread.
class KESA_API WriteOnce {
public:
    WriteOnce() noexcept;
    ~WriteOnce();
    WriteOnce(const WriteOnce&) = delete;
    WriteOnce& operator=(const WriteOnce&) = delete;

    /// This thread's; null: there is none.
    static WriteOnce* current() noexcept;

    /// An update as it is, or as the only one of a list.
    enum class Form : bool { eALONE, eLIST };
    /// Null: it has not been written.
    const Payload* find(const RegistryUpdate& update, Form form, std::string_view mimeType) const noexcept;
    void keep(const RegistryUpdate& update, Form form, const Payload& written);

private:
    struct Written {
        RegistryUpdate update; ///< keeps the element, so that no other one gets its address
        Form form = Form::eALONE;
        Payload payload;
    };
    std::array<Written, 4> m_written; ///< two forms, two formats
    std::size_t m_next = 0;
};

} // namespace kesa::serviceregistry

#endif
