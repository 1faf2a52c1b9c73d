#ifndef UTIL_CONFIG_FINDDOCUMENT_H
#define UTIL_CONFIG_FINDDOCUMENT_H

#include <obr/api.h>

#include <string>

namespace util::config {

/// The file that a `Provider` of this name and path would read; empty when there is none.
KESA_API std::string findDocument(const std::string& name, const std::string& path);

} // namespace util::config

#endif
