#ifndef OBR_VISIBLE_H
#define OBR_VISIBLE_H

#include <obr/api.h>

#include <string>
#include <string_view>

namespace obr {

// What others have written, as names, paths, records, and texts of errors, without what a terminal would obey:
// characters that control it or the direction of writing are told as JSON does, "\u001b", and bytes that are no UTF-8
// as U+FFFD.

/// As a part of one line: line breaks and tabs are told, too.
KESA_API std::string visible(std::string_view text);

/// Lines and tabs stay as they are. JSON stays the JSON it is, and is valid UTF-8 then.
KESA_API std::string visibleLines(std::string_view text);

/// A part of one line as `visible` has it, for a trace: of more than 200 bytes the beginning, and "..." behind it.
KESA_API std::string glimpse(std::string_view text);

} // namespace obr

#endif
