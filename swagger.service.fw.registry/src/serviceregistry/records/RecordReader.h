#ifndef KESA_SERVICEREGISTRY_RECORDS_RECORDREADER_H
#define KESA_SERVICEREGISTRY_RECORDS_RECORDREADER_H

#include <kesa/core/Serializer.h>
#include <obr/ErrorOutput.h>
#include <obr/ErrorStorage.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// How the records are read: members in any order, unknown ones skipped, required ones counted. True is failure.
namespace kesa::serviceregistry {

using serializer::IStructuredPullDeserializer;

/// Reads one object; `readMember(name)` reads the value of each member.
template <class F>
[[nodiscard]] bool readObject(IStructuredPullDeserializer& in, F&& readMember)
{
    if (in.beginObject()) {
        return true;
    }
    std::string_view name;
    while (!in.atObjectEnd()) {
        // Broken input answers "not at the end" for ever, with an error pending.
        if (obr::ErrorStorage::isError()) {
            return true;
        }
        if (in.memberNameView(name) || readMember(name) || in.endMember()) {
            return true;
        }
    }
    return in.endObject();
}

template <class T>
[[nodiscard]] bool readValue(IStructuredPullDeserializer& in, T& value)
{
    return serializer::deserialize(in, value);
}

/// Appends to `list`: of a list that occurs twice in a record, the elements of both occurrences stay.
template <class T>
[[nodiscard]] bool readValue(IStructuredPullDeserializer& in, std::vector<T>& list)
{
    if (in.beginArray()) {
        return true;
    }
    if (list.empty()) { // a list that comes piece by piece would move with every piece
        list.reserve(in.itemCount());
    }
    while (!in.atArrayEnd()) {
        if (obr::ErrorStorage::isError()) {
            return true;
        }
        if (in.beginElement() || serializer::deserialize(in, list.emplace_back()) || in.endElement()) {
            return true;
        }
    }
    return in.endArray();
}

/// Null stands for an absent value.
template <class T>
[[nodiscard]] bool readOptional(IStructuredPullDeserializer& in, optional<T>& field)
{
    field.reset();
    IStructuredPullDeserializer::Kind kind{};
    if (in.peek(kind)) {
        return true;
    }
    if (kind == IStructuredPullDeserializer::Kind::eNULL) {
        return in.nullValue();
    }
    return readValue(in, field.emplace());
}

/// The required members of a record that have not been read so far, one bit each in the order of `words`.
template <std::size_t N>
class RequiredMembers {
public:
    constexpr RequiredMembers(std::string_view record, const std::string_view (&words)[N]) noexcept
        : m_record(record), m_words(words)
    {}

    void found(std::size_t index) noexcept { m_missing &= ~(1U << index); }

    /// Reports those that are missing.
    [[nodiscard]] bool check() const
    {
        if (m_missing == 0) {
            return false;
        }
        std::string text = "Cannot build ";
        text.append(m_record).append(", some of required attributes are not set: ");
        for (std::size_t i = 0; i < N; ++i) {
            if ((m_missing & (1U << i)) != 0) {
                text.append(m_words[i]);
            }
        }
        return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 12, text);
    }

private:
    std::string_view m_record;
    const std::string_view (&m_words)[N];
    unsigned int m_missing = (1U << N) - 1U;
};

} // namespace kesa::serviceregistry

#endif
