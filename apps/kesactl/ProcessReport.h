#ifndef KESACTL_PROCESSREPORT_H
#define KESACTL_PROCESSREPORT_H

#include "Failure.h"
#include "ProcessFacts.h"
#include "RunDirectoryFacts.h"
#include "explainUnreachable.h"

#include <comm/Clock.h>
#include <util/config/Value.h>

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace kesactl {

/// "kesactl check-config /etc/media.json --process media": what says what is wrong with the document that it has read.
/// `answer`: what the process says of itself; undefined, or without its document, where that is not known.
std::string documentCheck(const util::config::Value& answer, const std::string& process);

/// A process that has a name in the run directory: what the kernel knows of it, and what it says itself.
struct ProcessReport {
    std::string name;           ///< as in locators
    pid_t pid = 0;              ///< 0: of another container, so the kernel tells nothing
    ProcessFacts facts;         ///< of `pid`
    util::config::Value answer; ///< as in docs/protocol.md; undefined when it has not answered
    /// Why not: "stopped", "does not answer", "other version", "other program", "does not say", "not allowed",
    /// "no socket".
    std::string note;
    comm::TimeNs after = 0; ///< from the question to the answer
    std::string advice;     ///< the same in a sentence, with what to do; begins with the process
    Unreached unreached{};  ///< of one that was asked in vain; else empty
    ExitCode exitCode = ExitCode::eOK;
    bool isSilent = false; ///< it provides nothing, so that `answer` is what others have said of it

    std::string plainName() const; ///< not as it stands in locators
    std::string processId() const; ///< "-" when unknown, as the next ones
    std::string user() const;
    std::string executable() const;
    comm::TimeNs started() const; ///< on the wall clock; 0 when unknown
    std::string version() const;  ///< of the library, and its file
    /// Who holds its loops: "the handler of trackService for '/a' has held its executor for 4 s".
    std::vector<std::string> holds() const;
    std::string documentCheck() const { return kesactl::documentCheck(answer, plainName()); }
    bool areServicesClosed() const { return answer["servicesClosed"] == true; }
    /// Of the answer, a number; "-" without one.
    std::string number(std::string_view member) const;
    /// The answer, else what the kernel knows with "note" and "advice"; both with "user". One line without its end.
    std::string asJson() const;
};

/// The run directory that counts for this process. A `Failure` when there is none, or when nobody is in it.
RunDirectoryFacts findRunDirectory();

/// Of the processes of `directory`'s names, in the order of these; all are asked at once. Those that cannot answer are
/// not waited for; `isPatient`: those that are stopped at the moment are, since they may be continued.
std::vector<ProcessReport> lookAtProcesses(const RunDirectoryFacts& directory, comm::TimeNs deadline,
                                           bool isPatient = false);

/// Notes in `report` that the process is stopped, and what to do.
void explainStopped(ProcessReport& report);

/// Whether that is a time of the wall clock at which anything can have happened. On a machine whose own clock stands at
/// 1970, as one without a battery, that is one, too.
bool isCredible(comm::TimeNs time);

/// Of milliseconds since 1970 as a peer has told them; 0 when they are no time.
comm::TimeNs timeOf(const util::config::Value& milliseconds);

/// Of this place; "-" for one that is not credible. Short for tables: "18:03:11" of today, "2026-11-25" of another day;
/// else both.
std::string asLocalTime(comm::TimeNs time, bool isShort = false);

} // namespace kesactl

#endif
