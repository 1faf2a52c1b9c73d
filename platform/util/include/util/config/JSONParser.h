#ifndef UTIL_CONFIG_JSONPARSER_H
#define UTIL_CONFIG_JSONPARSER_H

#include <util/config/Complaint.h>
#include <util/config/Dictionary.h>

#include <string>
#include <string_view>
#include <vector>

namespace util::config {

/// Reads JSON text (RFC 8259, UTF-8) into values. Failures record "LINE:COLUMN: what" in `obr::ErrorStorage`.
/// Depth is limited; the last of duplicate keys wins.
class KESA_API JSONParser {
public:
    /// `strict` is always true: comments and trailing commas are errors.
    explicit JSONParser(bool strict = true) noexcept;

    /// Reads a text whose root is an object into a new dictionary, which is the caller's; another root records
    /// "root is not dictionary".
    [[nodiscard]] bool parseStringToDict(const std::string& text, Dictionary** out) const;
    /// Reads a text with any root.
    [[nodiscard]] bool parseString(std::string_view text, Value& out) const;

    /// About the text last read: why it cannot be, else the keys that stand more than once in one object.
    const std::vector<Complaint>& complaints() const noexcept { return m_complaints; }

private:
    mutable std::vector<Complaint> m_complaints;
};

} // namespace util::config

#endif
