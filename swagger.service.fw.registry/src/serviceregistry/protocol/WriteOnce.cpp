#include <kesa/serviceregistry/WriteOnce.h>

#include <algorithm>

namespace kesa::serviceregistry {

namespace {

thread_local WriteOnce* theCurrent = nullptr;

} // namespace

WriteOnce::Use::Use(WriteOnce& once) noexcept
{
    theCurrent = &once;
}

WriteOnce::Use::~Use()
{
    theCurrent->forget();
    theCurrent = nullptr;
}

WriteOnce* WriteOnce::current() noexcept
{
    return theCurrent;
}

const Payload* WriteOnce::find(const RegistryUpdate& update, Form form, std::string_view mimeType) const noexcept
{
    const auto found = std::find_if(m_written.begin(), m_written.end(), [&](const Written& each) {
        return each.update.element && each.update == update && each.form == form &&
               each.payload.getMimeType() == mimeType;
    });
    return found != m_written.end() ? &found->payload : nullptr;
}

void WriteOnce::keep(const RegistryUpdate& update, Form form, const Payload& written)
{
    m_written[m_next] = {update, form, written};
    m_next = (m_next + 1) % m_written.size();
}

const Payload* WriteOnce::find(const ServiceDef& record, std::string_view mimeType) const noexcept
{
    return m_record == &record && m_writtenRecord.getMimeType() == mimeType ? &m_writtenRecord : nullptr;
}

void WriteOnce::keep(const ServiceDef& record, const Payload& written)
{
    m_record = &record;
    m_writtenRecord = written;
}

void WriteOnce::forget() noexcept
{
    for (Written& each : m_written) {
        if (each.update.element) {
            each = {};
        }
    }
    m_next = 0;
    m_record = nullptr;
    m_writtenRecord = {};
}

} // namespace kesa::serviceregistry
