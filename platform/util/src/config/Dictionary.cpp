#include <util/config/Dictionary.h>

#include <algorithm>
#include <atomic>
#include <iterator>

namespace util::config {

/// Shared by all copies and changed only by a dictionary that is its one owner. The count is read with acquire for
/// that test: it pairs with the release of an owner on another thread that let go, whose reads then lie before our
/// write. Nobody can become an owner in between, since that takes a copy of the one dictionary that is being changed.
struct Dictionary::Content {
    explicit Content(std::vector<Value::Member> itsMembers) : members(std::move(itsMembers)) {}

    std::atomic<std::size_t> owners{1};
    std::vector<Value::Member> members;
};

namespace {

constexpr std::size_t USUAL_SIZE = 4;

bool isBefore(const Value::Member& member, std::string_view key)
{
    return member.first < key;
}

/// Stable, and for few members without the buffer that `std::stable_sort` makes.
void sort(std::vector<Value::Member>& members)
{
    constexpr std::size_t FEW = 16;
    const auto isLess = [](const auto& a, const auto& b) { return a.first < b.first; };
    if (members.size() > FEW) {
        std::stable_sort(members.begin(), members.end(), isLess);
        return;
    }
    for (auto next = members.begin(); next != members.end(); ++next) {
        std::rotate(std::upper_bound(members.begin(), next, *next, isLess), next, std::next(next));
    }
}

/// Ascending keys, each once, with the value that stood last.
void normalise(std::vector<Value::Member>& members)
{
    const auto isDisorder = [](const auto& a, const auto& b) { return a.first >= b.first; };
    if (std::adjacent_find(members.begin(), members.end(), isDisorder) == members.end()) {
        return; // as our own writers leave them
    }
    sort(members);
    const auto firstKept =
        std::unique(members.rbegin(), members.rend(), [](const auto& a, const auto& b) { return a.first == b.first; });
    members.erase(members.begin(), firstKept.base());
}

} // namespace

Dictionary::Dictionary(std::initializer_list<Value::Member> members) : Dictionary(std::vector<Value::Member>(members))
{}

Dictionary::Dictionary(std::vector<Value::Member> members)
{
    if (!members.empty()) {
        normalise(members);
        m_content = new Content(std::move(members));
    }
}

Dictionary::Dictionary(const Dictionary& other) noexcept : m_content(other.m_content)
{
    if (m_content != nullptr) {
        m_content->owners.fetch_add(1, std::memory_order_relaxed); // `other` keeps it meanwhile
    }
}

Dictionary& Dictionary::operator=(const Dictionary& other) noexcept
{
    Dictionary copy(other);
    std::swap(m_content, copy.m_content);
    return *this;
}

Dictionary::~Dictionary()
{
    release();
}

void Dictionary::release() noexcept
{
    if (m_content != nullptr && m_content->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete m_content;
    }
    m_content = nullptr;
}

Dictionary::Content& Dictionary::writable()
{
    if (m_content == nullptr) {
        m_content = new Content({});
        m_content->members.reserve(USUAL_SIZE);
    } else if (m_content->owners.load(std::memory_order_acquire) != 1) {
        auto* const copy = new Content(m_content->members);
        release();
        m_content = copy;
    }
    return *m_content;
}

void Dictionary::set(std::string_view key, Value value)
{
    std::vector<Value::Member>& members = writable().members;
    const auto place = std::lower_bound(members.begin(), members.end(), key, isBefore);
    if (place != members.end() && place->first == key) {
        place->second = std::move(value);
    } else {
        members.emplace(place, std::string(key), std::move(value));
    }
}

void Dictionary::erase(std::string_view key)
{
    if (!contains(key)) {
        return;
    }
    std::vector<Value::Member>& members = writable().members;
    members.erase(std::lower_bound(members.begin(), members.end(), key, isBefore));
}

const Value& Dictionary::operator[](std::string_view key) const noexcept
{
    const Value::Member* const place = std::lower_bound(begin(), end(), key, isBefore);
    return place != end() && place->first == key ? place->second : Value::getUndefined();
}

std::size_t Dictionary::size() const noexcept
{
    return m_content != nullptr ? m_content->members.size() : 0;
}

const Value::Member* Dictionary::begin() const noexcept
{
    return m_content != nullptr ? m_content->members.data() : nullptr;
}

const Value::Member* Dictionary::end() const noexcept
{
    return begin() + size();
}

bool operator==(const Dictionary& a, const Dictionary& b) noexcept
{
    return a.m_content == b.m_content || std::equal(a.begin(), a.end(), b.begin(), b.end());
}

} // namespace util::config
