#include <util/config/JsonPositions.h>

// Of its own, without the vector instructions of JsonParser.cpp, which read behind the end of a text.
#define RAPIDJSON_NAMESPACE kesa_rapidjson_plain
#define RAPIDJSON_NAMESPACE_BEGIN namespace kesa_rapidjson_plain {
#define RAPIDJSON_NAMESPACE_END }
#include <rapidjson/reader.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <vector>

namespace util::config {
namespace {

// A path is known by its hash, which that of what is below it goes on from: the paths of a long list below a long key
// would take as many times the key as the list has elements. Two that met would show the place of the other one.
constexpr std::uint64_t NO_PATH = 14695981039346656037U;

std::uint64_t extended(std::uint64_t path, char mark, std::string_view text)
{
    const auto add = [&path](char c) { path = (path ^ static_cast<unsigned char>(c)) * 1099511628211U; };
    add(mark);
    std::for_each(text.begin(), text.end(), add);
    return path;
}

// The marks of a step are bytes that no key has.

std::uint64_t extended(std::uint64_t path, std::string_view key)
{
    return extended(path, '\xfe', shortenedKey(key));
}

std::uint64_t extended(std::uint64_t path, std::size_t index)
{
    return extended(path, '\xff', std::to_string(index));
}

/// RapidJSON's handler. Reading in place, strings and numbers are given as addresses inside of the text, so their
/// beginnings are known.
class Collector {
public:
    using Store = std::function<void(std::uint64_t path, std::size_t offset)>;

    Collector(const char* text, ::kesa_rapidjson_plain::InsituStringStream& stream, Store store)
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
        level.child = extended(level.path, std::string_view(characters, size));
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
        std::uint64_t path;
        bool isArray;
        std::size_t nextIndex;
        std::uint64_t child; ///< path of the member that follows
    };

    std::size_t offset(const char* characters) const { return static_cast<std::size_t>(characters - m_text); }

    /// The path of the value that begins at `offset`.
    std::uint64_t begin(std::size_t offset)
    {
        if (m_levels.empty()) {
            m_store(NO_PATH, offset);
            return NO_PATH;
        }
        Level& level = m_levels.back();
        if (!level.isArray) {
            return level.child;
        }
        const std::uint64_t path = extended(level.path, level.nextIndex++);
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
        m_levels.push_back({begin(m_stream.Tell()), isArray, 0, NO_PATH});
        return true;
    }
    bool close()
    {
        m_levels.pop_back();
        return true;
    }

    const char* m_text;
    ::kesa_rapidjson_plain::InsituStringStream& m_stream;
    Store m_store;
    std::vector<Level> m_levels;
};

/// Goes through a text, forwards only.
class Cursor {
public:
    explicit Cursor(const std::string& text) : m_text(text) {}

    JsonPositions::Position at(std::size_t offset)
    {
        for (; m_offset < offset; ++m_offset) {
            const char c = m_text[m_offset];
            if (c == '\n') {
                m_position = {m_position.line + 1, 1};
            } else if ((static_cast<unsigned char>(c) & 0xc0U) != 0x80) { // the first byte of a character
                ++m_position.column;
            }
        }
        return m_position;
    }

private:
    const std::string& m_text;
    std::size_t m_offset = 0;
    JsonPositions::Position m_position{1, 1};
};

} // namespace

JsonPositions::JsonPositions(const std::string& text)
{
    Cursor cursor(text); // the reader comes by each place once, in order
    const auto store = [&](std::uint64_t path, std::size_t offset) { m_positions[path] = cursor.at(offset); };
    std::string copy = text; // is overwritten by the reader
    ::kesa_rapidjson_plain::InsituStringStream stream(copy.data());
    Collector collector(copy.data(), stream, store);
    ::kesa_rapidjson_plain::Reader reader;
    constexpr unsigned int FLAGS = ::kesa_rapidjson_plain::kParseInsituFlag |
                                   ::kesa_rapidjson_plain::kParseNumbersAsStringsFlag |
                                   ::kesa_rapidjson_plain::kParseIterativeFlag;
    static_cast<void>(reader.Parse<FLAGS>(stream, collector));
}

JsonPositions::Position JsonPositions::find(const DocumentPath& path) const
{
    Position nearest;
    std::uint64_t hash = NO_PATH;
    const auto look = [&] {
        if (const auto found = m_positions.find(hash); found != m_positions.end()) {
            nearest = found->second;
        }
    };
    look();
    for (const auto& step : path) {
        hash = std::visit([hash](const auto& keyOrIndex) { return extended(hash, keyOrIndex); }, step);
        look();
    }
    return nearest;
}

} // namespace util::config
