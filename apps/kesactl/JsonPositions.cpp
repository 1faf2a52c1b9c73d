#include "JsonPositions.h"

#include <rapidjson/reader.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace kesactl {
namespace {

/// RapidJSON's handler. Reading in place, strings and numbers are given as addresses inside of the text, so their
/// beginnings are known.
class Collector {
public:
    using Store = std::function<void(const std::string& path, std::size_t offset)>;

    Collector(const char* text, rapidjson::InsituStringStream& stream, Store store)
        : m_text(text), m_stream(stream), m_store(std::move(store))
    {}

    bool Null() { return value(m_stream.Tell() - 4); }
    bool Bool(bool isTrue) { return value(m_stream.Tell() - (isTrue ? 4 : 5)); }
    bool RawNumber(const char* characters, unsigned int, bool) { return value(offset(characters)); }
    bool String(const char* characters, unsigned int, bool) { return value(offset(characters) - 1); }
    bool StartObject() { return open(false); }
    bool StartArray() { return open(true); }
    bool EndObject(unsigned int) { return close(); }
    bool EndArray(unsigned int) { return close(); }
    bool Key(const char* characters, unsigned int size, bool)
    {
        Level& level = m_levels.back();
        level.child = level.path.empty() ? "" : level.path + ".";
        level.child.append(characters, size);
        m_store(level.child, offset(characters) - 1);
        return true;
    }
    // Numbers come as `RawNumber`.
    bool Int(int) { return true; }
    bool Uint(unsigned int) { return true; }
    bool Int64(std::int64_t) { return true; }
    bool Uint64(std::uint64_t) { return true; }
    bool Double(double) { return true; }

private:
    struct Level {
        std::string path;
        bool isArray;
        std::size_t nextIndex;
        std::string child; ///< path of the member that follows
    };

    std::size_t offset(const char* characters) const { return static_cast<std::size_t>(characters - m_text); }

    /// The path of the value that begins at `offset`.
    std::string begin(std::size_t offset)
    {
        if (m_levels.empty()) {
            m_store("", offset);
            return "";
        }
        Level& level = m_levels.back();
        if (!level.isArray) {
            return level.child;
        }
        std::string path = level.path + "[" + std::to_string(level.nextIndex++) + "]";
        m_store(path, offset);
        return path;
    }
    bool value(std::size_t offset)
    {
        begin(offset);
        return true;
    }
    bool open(bool isArray)
    {
        m_levels.push_back({begin(m_stream.Tell()), isArray, 0, ""});
        return true;
    }
    bool close()
    {
        m_levels.pop_back();
        return true;
    }

    const char* m_text;
    rapidjson::InsituStringStream& m_stream;
    Store m_store;
    std::vector<Level> m_levels;
};

/// Where each line of a text begins.
std::vector<std::size_t> lineBeginnings(const std::string& text)
{
    std::vector<std::size_t> beginnings = {0};
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n') {
            beginnings.push_back(i + 1);
        }
    }
    return beginnings;
}

} // namespace

JsonPositions::JsonPositions(const std::string& text)
{
    const std::vector<std::size_t> lines = lineBeginnings(text);
    const auto store = [&](const std::string& path, std::size_t offset) {
        const auto next = std::upper_bound(lines.begin(), lines.end(), offset);
        const auto line = static_cast<int>(next - lines.begin());
        const auto lineStart = static_cast<std::ptrdiff_t>(*std::prev(next));
        const auto isFirstByte = [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; };
        const auto column =
            std::count_if(text.begin() + lineStart, text.begin() + static_cast<std::ptrdiff_t>(offset), isFirstByte);
        m_positions[path] = {line, static_cast<int>(column) + 1};
    };
    std::string copy = text; // is overwritten by the reader
    rapidjson::InsituStringStream stream(copy.data());
    Collector collector(copy.data(), stream, store);
    rapidjson::Reader reader;
    constexpr unsigned int FLAGS =
        rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseIterativeFlag;
    static_cast<void>(reader.Parse<FLAGS>(stream, collector));
}

JsonPositions::Position JsonPositions::find(std::string path) const
{
    auto found = m_positions.find(path);
    while (found == m_positions.end() && !path.empty()) {
        const std::size_t end = path.find_last_of(".[");
        path.erase(end == std::string::npos ? 0 : end);
        found = m_positions.find(path);
    }
    return found == m_positions.end() ? Position() : found->second;
}

} // namespace kesactl
