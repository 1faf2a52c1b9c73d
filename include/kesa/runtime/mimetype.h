#ifndef KESA_RUNTIME_MIMETYPE_H
#define KESA_RUNTIME_MIMETYPE_H

#include <kesa/serviceregistry/ServiceDef.h>
#include <util/config/Value.h>

#include <string>
#include <vector>

/// Which format to talk in. The known formats are "application/json", the default, and "application/vnd.qelbin".
namespace kesa::runtime {

/// The first of `formats` that is known, else the default.
KESA_API std::string findFormat(const std::vector<std::string>& formats);
/// The first format of the service that is known, else the default.
KESA_API std::string getMimeType(const serviceregistry::ServiceDef& service);
/// Of the value of an "$accept" header: a string, or an array of strings; else the default.
KESA_API std::string getMimeType(const util::config::Value& value);

} // namespace kesa::runtime

#endif
