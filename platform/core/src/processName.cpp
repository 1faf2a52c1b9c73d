#include <kesa/processName.h>

#include <fmt/format.h>
#include <obr/utf8.h>
#include <util/config/Complaint.h>

namespace kesa {

namespace {

/// As it can be shown.
std::string escaped(std::string_view name)
{
    std::string text;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        text += byte < 0x80 ? std::string(1, c) : fmt::format("\\x{:02X}", byte);
    }
    return text;
}

} // namespace

bool isProcessName(std::string_view name) noexcept
{
    return !name.empty() && name.size() <= LONGEST_PROCESS_NAME && obr::isUtf8(name);
}

std::string complaintAboutProcessName(std::string_view name)
{
    if (isProcessName(name)) {
        return {};
    }
    const bool isText = obr::isUtf8(name);
    return fmt::format("\"{}\" cannot be the name of this process: ",
                       isText ? util::config::excerpt(name) : util::config::excerpt(escaped(name))) +
           (isText ? fmt::format("a name has 1 to {} bytes, and this one {}", LONGEST_PROCESS_NAME, name.size())
                   : "a name is UTF-8, and this one is not");
}

} // namespace kesa
