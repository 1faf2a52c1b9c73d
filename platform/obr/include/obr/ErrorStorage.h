#ifndef OBR_ERRORSTORAGE_H
#define OBR_ERRORSTORAGE_H

#include <obr/api.h>

#include <string>

namespace obr {

/// The one pending error of the current run loop; the last recorded wins. Outside of run loops each thread
/// has its own. Reading a record fails while an error is pending, so every top-level read (a payload, a
/// request body, a configuration) calls `ack` when it starts, never at its end: who called may want the reason.
class KESA_API ErrorStorage {
public:
    static bool isError() noexcept;
    /// The text of the pending error, empty when there is none. Read it on the thread that failed.
    static std::string reason();
    static void ack() noexcept;
    /// The text of the pending error, which is not pending any more.
    static std::string takeReason();

    /// What is pending for one run loop. Whoever runs several loops on one thread exchanges it around each event.
    struct Slot {
        bool isError = false;
        std::string reason;
        const char* file = nullptr; ///< where it was recorded
        int line = 0;
    };
    static void exchange(Slot& slot) noexcept;
};

} // namespace obr

#endif
