#include <util/config/DocumentPath.h>

namespace util::config {

std::string toText(const DocumentPath& path)
{
    std::string text;
    for (const auto& step : path) {
        if (const auto* const index = std::get_if<std::size_t>(&step)) {
            text.append("[").append(std::to_string(*index)).append("]");
        } else {
            text.append(text.empty() ? "" : ".").append(std::get<std::string>(step));
        }
    }
    return text;
}

DocumentPath Place::path() const
{
    if (parent == nullptr) {
        return {};
    }
    DocumentPath path = parent->path();
    if (isElement) {
        path.emplace_back(index);
    } else {
        path.emplace_back(std::string(shortenedKey(key)));
    }
    return path;
}

} // namespace util::config
