#ifndef KESACTL_DISPLAY_WIDTH_H
#define KESACTL_DISPLAY_WIDTH_H

#include <cstddef>
#include <string>
#include <string_view>

namespace kesactl {

// In cells of a terminal, whatever the locale of the user: an ideogram or emoji takes two, a combining mark or a joiner
// none. Of a text that is `visible`.

std::size_t displayWidth(std::string_view text);

/// As much of the begin of `text` as takes at most `width` cells, with the marks of its last character.
std::string_view beginning(std::string_view text, std::size_t width);

/// `text` with blanks behind it, so that it takes at least `width` cells.
std::string padded(std::string_view text, std::size_t width);

} // namespace kesactl

#endif
