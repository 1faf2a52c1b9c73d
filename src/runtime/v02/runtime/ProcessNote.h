#ifndef KESA_RUNTIME_V02_PROCESSNOTE_H
#define KESA_RUNTIME_V02_PROCESSNOTE_H

#include <comm/Clock.h>
#include <kesa/Response.h>
#include <kesa/runtime/v02/IReasons.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::runtime::v02 {

/// What this process says of itself without being asked, for the time when it cannot be asked: a text in a file of its
/// memory, which others of its user read in /proc. It claims no name, and nothing of it is left when the process ends.
/// docs/protocol.md has the text.
///
/// A text is written to a new file, which then takes the descriptor of the one before in one step, so that nobody reads
/// half of one. The file of the next text is made before, so a process that has used up its descriptors goes on, unless
/// something else gets the number in between; then the text of before stays. Any thread; waits for nobody.
class ProcessNote {
public:
    /// Of the file, as the kernel shows it.
    static constexpr const char* FILE_NAME = "kesa-process";
    static constexpr std::size_t MOST_BYTES = std::size_t{64} << 10;
    /// Which directory a path leads to at the moment; empty: to none.
    static std::string directoryId(const std::string& path);
    static constexpr std::size_t MOST_OF_EACH = 16; ///< of many, the last ones are told

    /// `runDirectory`: empty when it meets others in none.
    ProcessNote(const std::string& process, const std::string& runDirectory);
    ProcessNote(const ProcessNote&) = delete;
    ProcessNote& operator=(const ProcessNote&) = delete;
    ~ProcessNote();

    /// That a registration was refused.
    void addRefusal(const std::string& path, const Response& error);
    /// That this process itself has ended a registration before a registry knew of it.
    void addDropped(const std::string& path);
    /// The path is registered by now.
    void setRegistered(const std::string& path);
    /// As `IReasons::tellTooSlow`. Written once a second at most.
    void addTooSlow(const std::string& path, const std::string& loop);
    /// Before the first call nobody looks for that, which the text says.
    void setHeld(const std::vector<IReasons::HeldLoop>& held);
    /// From now on it says nothing.
    void end();

private:
    struct Refusal {
        std::string path;
        std::string reason;
        std::int64_t when; ///< milliseconds since 1970
    };
    struct Dropped {
        std::string path;
        std::int64_t when; ///< as of a refusal
    };
    struct TooSlow {
        std::string path;
        std::string loop;
        std::int64_t when;
        std::int64_t times;
    };
    struct File {
        int descriptor = -1;
        std::uint64_t inode = 0;

        /// Not if the program has closed what it had not opened, and has got the number for something of its own.
        bool isOurs() const;
    };
    static File makeFile();
    void publish();
    std::string text() const;
    /// True on failure.
    [[nodiscard]] bool show(std::string_view text);

    const std::string m_process;
    const std::string m_runDirectory;
    const std::string m_runDirectoryId; ///< empty: it was not there
    std::mutex m_mutex;                 ///< of all below
    std::deque<Refusal> m_refused;
    std::deque<Dropped> m_dropped;
    std::deque<TooSlow> m_tooSlow;
    comm::TimeNs m_tooSlowShown = 0; ///< when they were written last
    std::optional<std::vector<IReasons::HeldLoop>> m_held;
    File m_shown;
    File m_next; ///< empty
    bool m_hasEnded = false;
};

} // namespace kesa::runtime::v02

#endif
