#ifndef KESA_RUNTIME_V02_CONFIG_ADVICE_H
#define KESA_RUNTIME_V02_CONFIG_ADVICE_H

#include "ConfigReport.h"

#include <string>
#include <string_view>

namespace kesa::runtime::v02 {

/// What to write instead, for a complaint of the configuration reader; empty when the complaint says it itself.
std::string_view adviceFor(std::string_view complaint);

/// For people who do not have the document before them:
/// "kesa.json: use_registry: (remote) registy not bool: write true or false". `source` is the file, or words for what
/// else was read; a complaint about the document itself names its file already.
std::string sentenceOf(const ConfigReport::Complaint& complaint, const std::string& source);

} // namespace kesa::runtime::v02

#endif
