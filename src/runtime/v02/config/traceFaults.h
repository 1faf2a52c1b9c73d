#ifndef KESA_RUNTIME_V02_CONFIG_TRACEFAULTS_H
#define KESA_RUNTIME_V02_CONFIG_TRACEFAULTS_H

#include "ConfigReport.h"

namespace kesa::runtime::v02 {

/// Traces for the writer of the document, on the channel "KESA_UTIL_CONFIG": beside the reader's own traces, which say
/// what, these say in which file, where in it, and what to write instead.
void traceFaults(const ConfigReport& report, const std::string& source, bool hasFailed);

/// One such line about what a process cannot work with: severity 4.
void traceFault(const std::string& source, const std::string& text);

} // namespace kesa::runtime::v02

#endif
