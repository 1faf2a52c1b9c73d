#ifndef UTIL_SERIALIZER_IDOCUMENTPARSER_H
#define UTIL_SERIALIZER_IDOCUMENTPARSER_H

#include "TokenList.h"

#include <memory>
#include <string>
#include <string_view>

namespace util::serializer {

/// Reads a whole document of one format. Reused: what it allocates serves the next document.
class IDocumentParser {
public:
    virtual ~IDocumentParser() = default;

    /// True on failure; `problem` then says what is wrong and where. Strings in `tokens` point into `document` or into
    /// this parser, until its next call.
    [[nodiscard]] virtual bool parse(std::string_view document, TokenList& tokens, std::string& problem) = 0;
};

std::unique_ptr<IDocumentParser> makeJsonParser();
std::unique_ptr<IDocumentParser> makeMsgpackParser();
std::unique_ptr<IDocumentParser> makeQelbinParser();

} // namespace util::serializer

#endif
