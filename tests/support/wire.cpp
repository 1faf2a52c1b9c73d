#include "support/wire.h"

namespace kesa::wire {

namespace {

void append(std::string& out, std::uint64_t number, int bytes)
{
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<char>(number >> (8 * i)));
    }
}

constexpr const char* INSTANCE = "\x14\x50"; // its key, and that it has 16 bytes

std::uint32_t numberAt(std::string_view bytes, std::size_t offset)
{
    std::uint32_t number = 0;
    for (std::size_t i = 4; i > 0; --i) {
        number = number << 8U | static_cast<unsigned char>(bytes[offset + i - 1]);
    }
    return number;
}

constexpr std::size_t SHORT_BYTES = 23;       // of a text, whose size then stands in its first byte
constexpr std::size_t FRAGMENT_BYTES = 65536; // of a frame that is not the last of its message

std::string text(const std::string& content)
{
    if (content.size() <= SHORT_BYTES) {
        return static_cast<char>(0x60 + content.size()) + content;
    }
    std::string size{'\x79'};
    size.push_back(static_cast<char>(content.size() >> 8U));
    size.push_back(static_cast<char>(content.size()));
    return size + content;
}

} // namespace

std::string frame(std::uint8_t kind, std::uint32_t stream, std::uint32_t target, const std::string& head,
                  const std::string& body, std::uint8_t flags)
{
    std::string bytes;
    append(bytes, head.size() + body.size(), 4);
    append(bytes, kind, 1);
    append(bytes, flags, 1);
    append(bytes, head.size(), 2);
    append(bytes, stream, 4);
    append(bytes, target, 4);
    return bytes + head + body;
}

std::string hello(const std::string& instance, const std::string& process, char version)
{
    const std::string versions = std::string("\xbf\x10") + version + '\x11' + version;
    return frame(eHELLO, 0, 0, versions + '\x12' + text(process) + INSTANCE + instance + "\xff");
}

std::string attach(std::uint32_t target, const std::string& path)
{
    return frame(eATTACH, 0, target, "\xbf\x01" + text(path) + "\xff");
}

std::string request(std::uint32_t stream, std::uint32_t target, const std::string& resource)
{
    using namespace std::string_literals;
    return frame(eREQUEST, stream, target, "\xbf\x00\x00\x01"s + text(resource) + "\xff");
}

std::string ask(std::uint32_t stream, std::uint32_t target, char command, const std::string& path,
                const std::string& body)
{
    using namespace std::string_literals;
    const std::string head = "\xbf\x00"s + command + '\x01' + text(path);
    return frame(eREQUEST, stream, target, head + "\x02\x01\x05\x00\x06"s + text("/registry") + "\xff", body);
}

std::string registration(std::uint32_t stream, std::uint32_t target, const std::string& path,
                         const std::string& locators)
{
    constexpr char INSERT = 3;
    const std::string roads = locators.empty() ? R"(["ipc://raw)" + path + R"("])" : locators;
    return ask(stream, target, INSERT, path,
               R"({"path":")" + path + R"(","type":"pex","versions":[],"locators":)" + roads + '}');
}

std::string beginningOfRequest(std::uint32_t stream, std::uint32_t target, std::uint32_t bodyBytes)
{
    using namespace std::string_literals;
    std::string head = "\xbf\x00\x00\x01\x61/\x02\x01\x03\x1a"s;
    for (int shift = 24; shift >= 0; shift -= 8) {
        head.push_back(static_cast<char>(bodyBytes >> static_cast<unsigned>(shift)));
    }
    head += '\xff';
    return frame(eREQUEST, stream, target, head, std::string(FRAGMENT_BYTES - head.size(), ' '), eMORE);
}

std::string fragmentOfRequest(std::uint32_t stream, std::uint32_t target)
{
    return frame(eREQUEST, stream, target, {}, std::string(FRAGMENT_BYTES, ' '), eMORE);
}

std::size_t costOf(std::string_view request)
{
    return 256 + numberAt(request, 0);
}

std::size_t sizeOf(std::string_view frame)
{
    return HEADER_BYTES + numberAt(frame, 0);
}

Kind kindOf(std::string_view frame)
{
    return static_cast<Kind>(frame.at(4));
}

std::uint32_t streamOf(std::string_view frame)
{
    return numberAt(frame, 8);
}

std::uint32_t targetOf(std::string_view frame)
{
    return numberAt(frame, 12);
}

std::string instanceIn(std::string_view hello)
{
    return std::string(hello.substr(hello.find(INSTANCE) + 2, 16));
}

} // namespace kesa::wire
