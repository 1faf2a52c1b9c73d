#ifndef OBR_GLOBALERRORHANDLER_H
#define OBR_GLOBALERRORHANDLER_H

#include <obr/api.h>

#include <functional>

namespace obr {

/// Where broken invariants end. The default handler writes one line to stderr and aborts.
class KESA_API GlobalErrorHandler {
public:
    struct Report {
        const char* condition; ///< text of the condition that failed; null for `doAbort`
        const char* file;
        int line;
        const char* function;
        const char* message; ///< may be null
    };
    using Handler = std::function<void(const Report&)>;

    /// Reports a failed assertion when `holds` is false. Returns when a replaced handler returns: callers must
    /// have a sane continuation.
    static void doAssert(bool holds, const char* condition, const char* file, int line, const char* function,
                         const char* message);

    /// Reports, then ends the process, whatever the handler does.
    [[noreturn]] static void doAbort(const char* file, int line, const char* function, const char* message);

    /// Replaces what `doAssert` reports to; empty restores the default. Returns the one before. Any thread.
    static Handler setHandler(Handler handler);

    /// Called before the process is ended by `doAbort` or by the default handler: flushes what must not be lost.
    static void atFatal(void (*flush)());
};

} // namespace obr

#endif
