#ifndef KESA_EASE_RUNTIME_H
#define KESA_EASE_RUNTIME_H

#include <kesa/Duration.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <functional>
#include <memory>
#include <string>

namespace kesa {

/// The runtime of this process, from here to the end of the scope:
///
///     int main()
///     {
///         kesa::Runtime runtime = kesa::startOrExit("greeter");
///         const auto greeter = kesa::provide("/greeter", service);
///         runtime.runUntilSignal();
///     }
///
/// Make it first in `main`, before any thread: it blocks SIGINT and SIGTERM in the calling thread, and a thread made
/// afterwards inherits that; one that was there before is traced (3), since a signal that it takes ends the process. A
/// child of a fork and a program started with `exec` do, too, and have to let them through themselves. SIGPIPE is left
/// as it is: no socket of the runtime raises it.
///
/// The first of the two that comes ends `runUntilSignal`, and `kesa::get` and `kesa::connect` wherever they wait: these
/// fail with "interrupted by SIGINT". So do those that are called afterwards, until `runUntilSignal` has returned: what
/// a program asks while it ends is answered. A further one, 0.1 s later or more, does what it does without a runtime:
/// it ends the process, whatever hangs. A thread that does not wait hears of none.
///
/// A signal that is ignored stays so: SIGINT in a program that a script has started with "&", so that Ctrl-C ends the
/// script alone, or that was started with SIGINT ignored in another way. The first that comes is traced (3). SIGTERM
/// ends such a program.
///
/// One of the two that the program has blocked before it makes this, or has a handler for, is left to it; the other is
/// taken as above. So is one whose handler is installed afterwards: since `main` blocks it, the handler then runs in a
/// thread of this class, and ends no `pause` or `sleep` of `main`. What is left to the program ends no wait; only
/// `runUntilSignal`, once it is called, takes both.
///
/// Handlers and service objects may be called until the runtime has ended. What they use is declared before it, or the
/// runtime is ended by hand before that goes.
///
/// Threads: made and ended in one thread of the process's own, no handler. `pthread_cancel` of a thread that may be
/// inside of any call of Kesa, as of one that waits in `kesa::get`, is not supported: it ends the process.
class KESA_API Runtime {
public:
    /// `fallbackDocument` counts when there is no configuration file at all; when it is empty there has to be one.
    explicit Runtime(const std::string& processName,
                     const std::string& fallbackDocument = runtime::v02::KesaRuntime::WITH_REGISTRYD);
    /// Ends, and blocks the two signals no longer, if it was the constructor that did.
    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    /// Whether it runs. If it does not, `error` says why in one sentence. A registry of the configuration that no
    /// backend can reach is a failed assertion before that, which ends the process unless its handler returns.
    explicit operator bool() const noexcept;
    const std::string& error() const noexcept;

    /// Only while it runs.
    runtime::v02::IKesaRuntime* operator->() const;
    runtime::v02::IKesaRuntime& operator*() const;

    /// Waits until the process is told to end. Which signal told it, SIGINT or SIGTERM, also when that was before; 0,
    /// at once, when the runtime does not run.
    int runUntilSignal();
    /// The same, and meanwhile calls `work` in this thread: now, and then after each `period`. What it is late it
    /// catches up with; periods that are over by then are left out. A period of 0 or less is a failed assertion.
    ///
    /// What `work` throws is traced (4) on "KESA_EASE" and leaves this to the caller; the runtime goes on.
    int runUntilSignal(Duration period, const std::function<void()>& work);

    /// Ends the runtime before the destructor does: no handler and no service is called after it returns. Twice is
    /// harmless.
    void end();

private:
    friend KESA_API Runtime startOrExit(const std::string& processName, const std::string& fallbackDocument);
    class Impl;
    explicit Runtime(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};

/// The runtime of a program that can do nothing without it: when it does not start, `error` is written to stderr and
/// the process ends with exit code 1.
[[nodiscard]] KESA_API Runtime startOrExit(
    const std::string& processName, const std::string& fallbackDocument = runtime::v02::KesaRuntime::WITH_REGISTRYD);

} // namespace kesa

#endif
