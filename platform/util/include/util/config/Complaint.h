#ifndef UTIL_CONFIG_COMPLAINT_H
#define UTIL_CONFIG_COMPLAINT_H

#include <obr/api.h>
#include <util/config/DocumentPath.h>
#include <util/config/Value.h>

#include <string>
#include <string_view>

namespace util::config {

/// What is wrong in a document. Made by the reader that sees it, and only put into words by who shows it.
struct KESA_API Complaint {
    /// As of trace lines.
    enum class Severity {
        eHINT = 2,    ///< nothing is affected
        eWARNING = 3, ///< the value is left out, or has not the effect that was meant
        eERROR = 4    ///< the document does not count, or a process cannot start with it, or serves nobody else
    };

    Severity severity;
    DocumentPath path; ///< of the value; empty for the document itself
    std::string text;
    std::string advice = {}; ///< what to write instead, may be empty
    int line = 0;            ///< from 1; 0: unknown, as it is unless the text cannot be parsed or was searched for it
    int column = 0;          ///< from 1, in characters

    /// "service type unknown; known are ...".
    std::string words() const;
    /// For people who do not have the document before them: "kesa.json:3:5: services[2].type: service type unknown;
    /// known are ...". `source` is the file, or words for what else was read, or empty.
    std::string sentence(const std::string& source) const;
};

// What complaints quote of a document: of something long the beginning, and "..." behind it.

/// A text, as it is.
KESA_API std::string excerpt(std::string_view text);
/// A value, as JSON has it: one can see whether it is a number or a text.
KESA_API std::string quoted(const Value& value);
/// The same in words: "the text "true"", "a list".
KESA_API std::string described(const Value& value);

} // namespace util::config

#endif
