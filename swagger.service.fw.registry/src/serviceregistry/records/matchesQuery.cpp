#include <kesa/serviceregistry/matchesQuery.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <tracing/Channel.h>
#include <vector>

namespace kesa::serviceregistry {

namespace {

using util::config::Value;

/// The runtime's: its queries ask here.
const ::tracing::Channel CHANNEL{"KESA_RUNTIME_MAIN"};

/// The texts of a value: of each element of an array, else of the value alone.
class Texts {
public:
    explicit Texts(const Value& value)
    {
        if (!value.isArray()) {
            add(value);
        }
        for (const Value& element : value.items()) {
            add(element);
        }
    }
    explicit Texts(const std::vector<url>& locators)
    {
        for (const url& locator : locators) {
            m_texts.push_back(locator.toString());
        }
    }

    std::size_t size() const noexcept { return m_texts.size(); }
    bool contains(const std::string& text) const
    {
        return std::find(m_texts.begin(), m_texts.end(), text) != m_texts.end();
    }

    friend bool haveSameTexts(Texts a, Texts b)
    {
        if (a.m_hasNested || b.m_hasNested || a.m_texts.size() != b.m_texts.size()) {
            return false;
        }
        std::sort(a.m_texts.begin(), a.m_texts.end());
        std::sort(b.m_texts.begin(), b.m_texts.end());
        return a.m_texts == b.m_texts;
    }

private:
    void add(const Value& value)
    {
        if (value.isArray() || value.isDictionary()) {
            m_hasNested = true;
        } else {
            m_texts.push_back(value.toText());
        }
    }

    std::vector<std::string> m_texts;
    bool m_hasNested = false;
};

bool matchesMetainfo(const ServiceDef& serviceDef, const std::string& key, const Texts& accepted)
{
    const Value& value = serviceDef.metainfo ? (*serviceDef.metainfo)[key] : Value::getUndefined();
    if (!value.isDefined()) {
        KESA_TRACE(CHANNEL, 2, "metainfo do not match");
        return false;
    }
    if (value.isArray()) {
        // First how many: then a query costs no more than its own lists are long, whatever the record has.
        return value.arraySize() == accepted.size() && haveSameTexts(Texts(value), accepted);
    }
    return !value.isDictionary() && accepted.contains(value.toText());
}

bool matchesEntry(const ServiceDef& serviceDef, const std::string& key, const Texts& accepted)
{
    if (key == "type") {
        const bool matches = accepted.contains(ServiceDef::enumToValue(serviceDef.type).value_or(""));
        if (!matches) {
            KESA_TRACE(CHANNEL, 2, "type do not match");
        }
        return matches;
    }
    if (key == "id") {
        const bool matches = accepted.contains(serviceDef.id ? serviceDef.id->toString() : std::string());
        if (!matches) {
            KESA_TRACE(CHANNEL, 2, "id do not match");
        }
        return matches;
    }
    if (key == "locators") {
        const bool matches =
            serviceDef.locators.size() == accepted.size() && haveSameTexts(Texts(serviceDef.locators), accepted);
        if (!matches) {
            KESA_TRACE(CHANNEL, 2, "locator do not match");
        }
        return matches;
    }
    return matchesMetainfo(serviceDef, key, accepted);
}

bool matchesScope(const ServiceDef& serviceDef, const Query& query)
{
    if (!query.scope || !serviceDef.scope) {
        return true;
    }
    return std::find(serviceDef.scope->begin(), serviceDef.scope->end(), *query.scope) != serviceDef.scope->end();
}

} // namespace

bool matchesQuery(const ServiceDef& serviceDef, const Query& query, const PathPatterns& patterns)
{
    const std::string& path = serviceDef.path.toString();
    if (!patterns.match(path)) {
        KESA_TRACE(CHANNEL, 2, "serviceDef %s query %s", path.c_str(), query.pattern.c_str());
        KESA_TRACE(CHANNEL, 2, "path do not match");
        return false;
    }
    if (!matchesScope(serviceDef, query)) {
        KESA_TRACE(CHANNEL, 2, "scope do not match");
        return false;
    }
    if (!query.metadata) {
        return true;
    }
    return std::all_of(query.metadata->begin(), query.metadata->end(), [&serviceDef](const Value::Member& entry) {
        return matchesEntry(serviceDef, entry.first, Texts(entry.second));
    });
}

} // namespace kesa::serviceregistry
