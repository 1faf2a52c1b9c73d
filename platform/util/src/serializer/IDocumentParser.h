#ifndef UTIL_SERIALIZER_IDOCUMENTPARSER_H
#define UTIL_SERIALIZER_IDOCUMENTPARSER_H

#include "TokenList.h"

#include <memory>
#include <string>
#include <string_view>

namespace util::serializer {

/// Why a document cannot be read.
struct Problem {
    std::string what;
    int line = 0;            ///< from 1; 0: of a format without lines, `what` says where
    int column = 0;          ///< in characters
    const char* advice = ""; ///< for who has written the document

    std::string toText() const
    {
        return line == 0 ? what : std::to_string(line) + ":" + std::to_string(column) + ": " + what;
    }
};

/// Reads a whole document of one format. Reused: what it allocates serves the next document.
class IDocumentParser {
public:
    virtual ~IDocumentParser() = default;

    /// True on failure; `problem` then says why. Strings in `tokens` point into `document` or into
    /// this parser, until its next call.
    [[nodiscard]] virtual bool parse(std::string_view document, TokenList& tokens, Problem& problem) = 0;
};

std::unique_ptr<IDocumentParser> makeJsonParser();
std::unique_ptr<IDocumentParser> makeMsgpackParser();
std::unique_ptr<IDocumentParser> makeQelbinParser();

} // namespace util::serializer

#endif
