#ifndef KESA_PAYLOAD_H
#define KESA_PAYLOAD_H

#include <obr/api.h>
#include <util/ByteBufferWriter.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace kesa {

/// Immutable bytes with the name of their format. Copies share the bytes. Any thread.
class KESA_API Payload {
public:
    /// Empty, without a format.
    Payload() noexcept = default;
    /// Bytes that `owner` keeps alive and unchanged.
    Payload(std::shared_ptr<const void> owner, const void* data, std::size_t size, std::string_view mimeName);

    /// Takes the bytes out of `writer`, without a copy. Names of unknown formats are kept.
    static Payload createFromWriter(util::ByteBufferWriter&& writer, std::string_view mimeName);
    static Payload createFromString(std::string text, std::string_view mimeName);
    static const Payload& getEmpty() noexcept;
    static std::string createStringFrom(const Payload& payload);

    const unsigned char* data() const noexcept { return m_data; }
    std::size_t size() const noexcept { return m_size; }
    bool isEmpty() const noexcept { return m_size == 0; }
    std::string_view text() const noexcept { return {reinterpret_cast<const char*>(m_data), m_size}; }
    /// Such as "application/json"; empty when none was given.
    std::string_view getMimeType() const noexcept { return m_mimeType; }

private:
    std::shared_ptr<const void> m_owner;
    const unsigned char* m_data = nullptr;
    std::size_t m_size = 0;
    std::string_view m_mimeType; // of a well-known name, or of m_unknownMimeType
    std::shared_ptr<const std::string> m_unknownMimeType;
};

} // namespace kesa

#endif
