#ifndef KESA_TESTS_SUPPORT_WIRE_H
#define KESA_TESTS_SUPPORT_WIRE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Frames as docs/protocol.md describes them, written out anew: a peer that breaks the rules cannot be built of the
/// code that keeps them.
namespace kesa::wire {

enum Kind : std::uint8_t {
    eHELLO = 1,
    eATTACH,
    eATTACHED,
    eDETACHED,
    eREQUEST,
    eNEXT,
    eERROR,
    eCOMPLETED,
    eCANCEL,
    ePING,
    ePONG,
    eGOODBYE,
    eCREDIT,
    eREQUEST_CREDIT
};

enum Flags : std::uint8_t { eMORE = 1 };

constexpr std::size_t HEADER_BYTES = 16;
constexpr std::size_t REQUEST_WINDOW = 262144;
/// What a request of one frame takes of it.
std::size_t costOf(std::string_view request);

std::string frame(std::uint8_t kind, std::uint32_t stream, std::uint32_t target, const std::string& head = {},
                  const std::string& body = {}, std::uint8_t flags = 0);
/// `instance`: 16 bytes; `version`: at most 23.
std::string hello(const std::string& instance = "0123456789abcdef", const std::string& process = "raw",
                  char version = 2);
std::string attach(std::uint32_t target, const std::string& path);
/// A "retrieve" of `resource`.
std::string request(std::uint32_t stream, std::uint32_t target, const std::string& resource);
/// A persistent stream of what the registry has, or takes: `command` as a number, `body` in JSON.
std::string ask(std::uint32_t stream, std::uint32_t target, char command, const std::string& path,
                const std::string& body);
/// The registration of a path at the registry; `locators`: a list in JSON, else of the path at "raw".
std::string registration(std::uint32_t stream, std::uint32_t target, const std::string& path,
                         const std::string& locators = {});
/// The first fragment of a "retrieve" of "/" with a body of so many bytes, and one that is not the last.
std::string beginningOfRequest(std::uint32_t stream, std::uint32_t target, std::uint32_t bodyBytes);
std::string fragmentOfRequest(std::uint32_t stream, std::uint32_t target);

/// With its header.
std::size_t sizeOf(std::string_view frame);
Kind kindOf(std::string_view frame);
std::uint32_t streamOf(std::string_view frame);
/// Of an answer its status.
std::uint32_t targetOf(std::string_view frame);
std::string instanceIn(std::string_view hello);

} // namespace kesa::wire

#endif
