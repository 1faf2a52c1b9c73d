#include <kesa/serviceregistry/WriteOnce.h>

#include <algorithm>

namespace kesa::serviceregistry {

namespace {

thread_local WriteOnce* theCurrent = nullptr;

} // namespace

WriteOnce::WriteOnce() noexcept
{
    theCurrent = this;
}

WriteOnce::~WriteOnce()
{
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

} // namespace kesa::serviceregistry
