#ifndef KESACTL_OUTPUT_H
#define KESACTL_OUTPUT_H

#include "Failure.h"

#include <comm/Reactor.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kesactl {

/// To stdout, at once, with `visibleLines`. A `Failure` when it cannot be written; without a text when its reader has
/// gone, as the reader of a pipe that has seen enough. Lines are the caller's to keep: what others have written is
/// `visible` in them.
void print(const std::string& text);

/// The same for what has to arrive as it is: only a terminal is spared what it would obey.
void printValue(const std::string& text);

/// To stderr: for people a line, and one with what to do; or one JSON object, {"error": text, "exitCode": number}, and
/// "status" and `members` when a service has refused. Nothing for a failure without a text.
void printFailure(const Failure& failure, bool isJson);

/// Cuts each line at the width of the terminal, with an ellipsis for what is missing; unchanged when stdout is none.
std::string fitted(const std::string& text);

/// Whether that would cut nothing.
bool fits(const std::string& text);

/// Breaks lines that are longer than the terminal is wide between words; unchanged when stdout is none.
std::string wrapped(const std::string& text);

/// A table: each column is as wide as its longest text, the last one not filled up. `rows` are of one length, the
/// heading among them. Each text is made `visible`.
std::string aligned(std::vector<std::vector<std::string>> rows);

/// The same; where that is wider than the terminal, the texts of one column take at most half of its width: of longer
/// ones the middle is left out.
std::string alignedToFit(std::vector<std::vector<std::string>> rows, std::size_t column);

/// "a, b, c and 4 more"
std::string firstOf(const std::vector<std::string>& all);

/// `text` in quotation marks, as JSON has it.
std::string asJsonString(std::string_view text);

/// `json` as one line without its end. A `Failure` when it is not one valid JSON value: `what` begins the sentence.
std::string asJsonLine(std::string_view json, const std::string& what);

/// Hears when the reader of stdout goes: what a command learns from writing only when there is something to write.
class ReaderWatch {
public:
    /// `gone` is called once, on a loop of this object's own.
    explicit ReaderWatch(std::function<void()> gone);
    /// `gone` is not called any more.
    ~ReaderWatch();
    ReaderWatch(const ReaderWatch&) = delete;
    ReaderWatch& operator=(const ReaderWatch&) = delete;

    /// How the command ends then.
    [[noreturn]] static void fail();

private:
    const std::shared_ptr<comm::Reactor> m_loop;
};

} // namespace kesactl

#endif
