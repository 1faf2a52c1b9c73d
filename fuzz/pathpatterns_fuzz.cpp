// A glob and a path, apart by a zero byte: a malformed glob has a reason with a position, a match never takes long, and
// a small glob of the simple kind matches what the plain reference matches.
#include "globReference.h"
#include "require.h"

#include <kesa/PathPatterns.h>
#include <obr/ErrorStorage.h>

#include <algorithm>
#include <cstdint>

namespace {

/// The reference takes exponential time, knows no sets and escapes, and braces only in pairs.
bool isForReference(const std::string& glob, const std::string& path)
{
    int depth = 0;
    for (const char c : glob) {
        depth += c == '{' ? 1 : (c == '}' ? -1 : 0);
        if (depth < 0 || (c == ',' && depth == 0) || std::string_view("ab*?/{,}").find(c) == std::string_view::npos) {
            return false;
        }
    }
    const bool isPlainPath = path.find_first_not_of("ab/") == std::string::npos && path.find("//") == std::string::npos;
    return isPlainPath && glob.size() <= 20 && path.size() <= 12;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto* const end = data + size;
    const auto* const zero = std::find(data, end, 0);
    const std::string glob(data, zero);
    const std::string path(zero == end ? end : zero + 1, end);
    obr::ErrorStorage::ack();
    const auto patterns = kesa::PathPatterns::createFromGlob(glob);
    if (!patterns) {
        require(obr::ErrorStorage::reason().find("position ") != std::string::npos);
        return 0;
    }
    require(!obr::ErrorStorage::isError());
    const bool matches = patterns->match(path);
    if (isForReference(glob, path)) {
        require(matches == globReference::matches(glob, path));
    }
    return 0;
}
