#ifndef KESACTL_VERDICT_H
#define KESACTL_VERDICT_H

#include <util/config/Value.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kesactl {

/// The one answer of `why`.
struct Verdict {
    std::string cause;              ///< a word of docs/why.md
    std::string text;               ///< what is so, as a sentence
    std::string advice;             ///< what to do; may be empty
    std::vector<std::string> notes; ///< what else is good to know

    static constexpr std::string_view WORKS = "works";
    bool isGood() const { return cause == WORKS; }
};

std::string asLines(const std::string& path, const Verdict& verdict);
/// One line, with its end. `explanation`: what the registry has answered; undefined when it was not asked.
std::string asJson(const std::string& path, const Verdict& verdict, const util::config::Value& explanation);

// Pieces of sentences, of what a registry answers to "explain".

/// Date and time of this place, of milliseconds since 1970.
std::string timeText(const util::config::Value& milliseconds);
/// "media (process 812)"
std::string whoText(const util::config::Value& who);
/// "12:00:01.000: other (process 7) was refused it: held by process media (pid 812)"
std::string eventText(const util::config::Value& event);
/// 0 when it is none.
std::int64_t integerOf(const util::config::Value& value);

} // namespace kesactl

#endif
