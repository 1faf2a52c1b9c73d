#include "store/Selection.h"

#include "store/footprint.h"
#include <globs/PatternTrie.h>
#include <globs/SplitGlob.h>

#include <kesa/serviceregistry/matchesQuery.h>

namespace kesa::registry {

namespace {

// In steps, as measured: a locator that is looked at, a scope that is compared, a text that a query accepts.
constexpr std::size_t LOCATOR_STEPS = 3;
constexpr std::size_t SCOPE_STEPS = 1;
constexpr std::size_t TEXT_STEPS = 60;
constexpr std::size_t COPIED_BYTES_PER_STEP = 4; ///< of such a text, which is copied

const PathPatterns& anyPath()
{
    static const PathPatterns& patterns = *new PathPatterns(*PathPatterns::createFromGlob("**"));
    return patterns;
}

void append(std::string& key, std::string_view text)
{
    key.append(std::to_string(text.size())).append(1, ':').append(text);
}

} // namespace

Selection::Selection(const Query& asked, const PathPatterns& compiled, const Viewer& watchers)
    : query(asked), patterns(compiled), viewer(watchers)
{
    const access::SplitGlob split(query.pattern);
    pathPrefix = split.pathPrefix();
    isPath = split.isPath();
}

bool Selection::asksFor(const Record& record) const
{
    return isVisible(record.serviceDef, viewer.realm) &&
           serviceregistry::matchesQuery(record.serviceDef, query, anyPath());
}

std::string Selection::key(const Query& query, const Viewer& viewer)
{
    std::string key;
    append(key, query.pattern);
    append(key, viewer.realm ? '+' + *viewer.realm : std::string());
    append(key, viewer.sight ? std::to_string(viewer.sight->number()) : std::string());
    append(key, query.scope ? '+' + *query.scope : std::string());
    append(key, query.metadata ? util::config::Value(*query.metadata).toText() : std::string());
    return key;
}

std::size_t Selection::costOfWants(const Query& query)
{
    std::size_t steps = MAX_LIST_ENTRIES * (LOCATOR_STEPS + (query.scope ? SCOPE_STEPS : 0));
    for (const auto& [key, value] : query.metadata.value_or(GenericObject())) {
        // Of a list of the same length in the record, too, and both are sorted.
        steps += TEXT_STEPS * (1 + 2 * value.arraySize()) + footprint(value) / COPIED_BYTES_PER_STEP;
    }
    return steps;
}

std::size_t Selection::cost() const
{
    return access::PatternTrie::cost(query.pattern, patterns) + costOfWants(query);
}

std::size_t Selection::memory() const
{
    return sizeof(*this) + footprint(query) + pathPrefix.size() + access::PatternTrie::memory(query.pattern, patterns);
}

} // namespace kesa::registry
