#ifndef UTIL_SHELLWORD_H
#define UTIL_SHELLWORD_H

#include <obr/api.h>

#include <string>
#include <string_view>

namespace util {

/// What others have named, as a path or a process, for a command that a user is told to type: in quotes if a shell
/// would do anything else with it than take it as one word.
KESA_API std::string shellWord(std::string_view text);

} // namespace util

#endif
