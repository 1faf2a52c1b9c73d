#ifndef KESA_COMMADAPTER_PROTOCOL_HEAD_H
#define KESA_COMMADAPTER_PROTOCOL_HEAD_H

#include "protocol/ByteQueue.h"
#include "protocol/Hello.h"

#include <kesa/IHeaderSource.h>
#include <kesa/Request.h>
#include <kesa/Response.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// Heads: the CBOR map in front of a body. `docs/protocol.md` has the table of keys.
namespace kesa::commadapter::protocol {

inline constexpr unsigned VALUE_DEPTH = 31; ///< how deep what stands in a head may nest

/// Well-known keys; their numbers are the wire's.
enum class Key : std::uint8_t {
    eCOMMAND = 0,
    ePATH = 1,
    eMIME_TYPE = 2,
    eBODY_SIZE = 3,

    eACCEPT = 4,
    eRESPONSE_SEMANTIC = 5,
    eSERVICE_PATH = 6,
    eCLIENT_ID = 7,
    eTRACE_ID = 8,
    eAUTH_TOKEN = 9,
    eREQUEST_COMMAND = 10,
    eREQUEST_PATH = 11,

    eLOWEST_VERSION = 16,
    eHIGHEST_VERSION = 17,
    ePROCESS = 18,
    eREALM = 19,
    eINSTANCE = 20,
    eLISTENERS = 21,
    eMAX_MESSAGE_BYTES = 22,

    eREASON = 23,

    eSTREAM_WINDOW = 24,

    eNONE = 255, ///< never sent
};

/// Writes one head to the end of `out`; nothing at all when it has no members.
class HeadWriter {
public:
    explicit HeadWriter(ByteQueue& out) noexcept : m_out(out), m_start(out.size()) {}

    void hello(const Hello& hello);
    void attach(std::string_view path);
    void goodbye(std::string_view reason);
    void request(const Request& request);
    void response(const Response& response);
    /// The format of the body alone.
    void mimeType(std::string_view name);
    void bodySize(std::size_t bytes);
    void close();

    std::size_t size() const noexcept { return m_out.size() - m_start; }
    bool isOpen() const noexcept { return m_isOpen; }
    /// Something cannot be written: text that is not UTF-8, a value that has no form or is nested too deeply.
    bool isInvalid() const noexcept { return m_isInvalid; }

private:
    void key(Key key);
    void text(std::string_view text);
    void integer(Key key, std::uint64_t value);
    void member(Key key, std::string_view value);
    void headers(const GenericObject& headers, bool isRequest);
    void value(const util::config::Value& value);
    void structure(const util::config::Value& value);

    ByteQueue& m_out;
    std::size_t m_start;
    bool m_isOpen = false;
    bool m_isInvalid = false;
};

/// What of a message's head is decoded at once. Views are into the head's bytes, or of well-known names.
struct Head {
    std::string_view command;
    std::string_view path;
    std::string_view mimeType;
    std::optional<std::uint64_t> bodySize;
    bool hasHeaders = false;
    bool isPersistent = false; ///< a request's response semantic
};

/// Checks a head as a whole. True: it is broken, `why` says how.
[[nodiscard]] bool readHead(const unsigned char* data, std::size_t size, Head& head, std::string& why);
[[nodiscard]] bool readHello(const unsigned char* data, std::size_t size, Hello& hello, std::string& why);
[[nodiscard]] bool readGoodbye(const unsigned char* data, std::size_t size, std::string& reason, std::string& why);

/// The headers of a message that arrived, still in the bytes of its head, which `readHead` has checked.
class HeaderSource final : public IHeaderSource {
public:
    /// `clientId` null: there is none to be filled in.
    HeaderSource(bool isRequest, std::shared_ptr<const std::string> clientId) noexcept
        : m_isRequest(isRequest), m_clientId(std::move(clientId))
    {}
    /// The bytes live as long as this object.
    void setHead(const unsigned char* data, std::size_t size) noexcept
    {
        m_data = data;
        m_size = size;
    }
    GenericObject decode() const override;
    util::config::Value find(std::string_view name) const override;

private:
    bool mayHave(std::string_view name) const noexcept;
    template <class IsWanted, class Keep>
    void read(const IsWanted& isWanted, const Keep& keep) const;

    const unsigned char* m_data = nullptr;
    std::size_t m_size = 0;
    bool m_isRequest;
    std::shared_ptr<const std::string> m_clientId;
};

} // namespace kesa::commadapter::protocol

#endif
