// Two texts, apart by a zero byte, as paths and as path and pattern.
#include "require.h"

#include <kesa/Path.h>

#include <algorithm>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using kesa::Path;
    const auto* const end = data + size;
    const auto* const zero = std::find(data, end, 0);
    const std::string path(data, zero);
    const std::string other(zero == end ? end : zero + 1, end);
    require(Path::join(path, "") == path);
    require(Path::isAbsolute(Path::makeAbsolute(path)));
    if (Path::matches(path, "**")) {
        require(Path::matches(path, path) || path.find("**") != std::string::npos);
        require(Path::makeAbsolute(Path::subpath(path, 0)) == path);
        require(Path::replacePattern("**", Path(path)) == path);
    }
    if (Path::isCanonical(path)) {
        require(Path::matches(path, "**"));
        if (Path::isCanonical(other)) {
            const std::string joined = Path::join(path, other);
            require(Path::isCanonical(joined) || joined.size() > 4096);
            require(Path::matches(joined, Path::join(path, "**")));
        }
    }
    if (const auto index = Path::indexIntoPathFromPattern(other, "**")) {
        require(Path::subpath(other, *index).compare(0, 2, "**") == 0);
    }
    static_cast<void>(Path::matches(path, other));
    return 0;
}
