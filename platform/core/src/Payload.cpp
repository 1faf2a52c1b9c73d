#include <kesa/Payload.h>
#include <kesa/mimetypes.h>

#include <utility>

namespace kesa {

Payload::Payload(std::shared_ptr<const void> owner, const void* data, std::size_t size, std::string_view mimeName)
    : m_owner(std::move(owner)), m_data(static_cast<const unsigned char*>(data)), m_size(size),
      m_mimeType(mimetypes::id2typename(mimetypes::typename2id(mimeName)))
{
    if (m_mimeType.empty() && !mimeName.empty()) {
        m_unknownMimeType = std::make_shared<const std::string>(mimeName);
        m_mimeType = *m_unknownMimeType;
    }
}

Payload Payload::createFromWriter(util::ByteBufferWriter&& writer, std::string_view mimeName)
{
    const std::size_t size = writer.size();
    const void* const data = writer.data();
    return Payload(std::shared_ptr<const unsigned char[]>(writer.take()), data, size, mimeName);
}

Payload Payload::createFromString(std::string text, std::string_view mimeName)
{
    auto bytes = std::make_shared<const std::string>(std::move(text));
    const void* const data = bytes->data();
    const std::size_t size = bytes->size();
    return Payload(std::move(bytes), data, size, mimeName);
}

const Payload& Payload::getEmpty() noexcept
{
    static const Payload& empty = *new Payload;
    return empty;
}

std::string Payload::createStringFrom(const Payload& payload)
{
    return std::string(payload.text());
}

} // namespace kesa
