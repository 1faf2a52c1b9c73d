#ifndef KESA_COMMADAPTER_TRANSPORT_DIRECTORYTRUST_H
#define KESA_COMMADAPTER_TRANSPORT_DIRECTORYTRUST_H

#include <sys/stat.h>

#include <string>

namespace kesa::commadapter::transport {

/// Why other users could remove or replace what a process of this user makes in a directory.
struct DirectoryDistrust {
    std::string text;   ///< what follows the directory's name; empty: they could not
    std::string advice; ///< what makes it safe
};

/// By owner and mode alone. Others write there only where the sticky bit keeps each user's files his own; then its
/// owner counts as well, who may do all: root, this user, or an account of a service, which the administrator has made.
/// Root relies on no other owner in any case. `path`: for the advice.
DirectoryDistrust findDistrust(const std::string& path, const struct stat& directory);

} // namespace kesa::commadapter::transport

#endif
