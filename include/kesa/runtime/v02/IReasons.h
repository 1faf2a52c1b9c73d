#ifndef KESA_RUNTIME_V02_IREASONS_H
#define KESA_RUNTIME_V02_IREASONS_H

#include <comm/LoopHold.h>
#include <kesa/url.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kesa::runtime::v02 {

/// What a process itself knows about why a service is not there, for the texts of its errors: how it stands to the
/// registry, and why a connection is not there. Nothing is asked of anybody for it; `kesactl` asks further.
///
/// Any thread, inside handlers too: it waits for nothing and calls nobody. It may be kept longer than its runtime.
class KESA_API IReasons {
public:
    virtual ~IReasons();
    /// Why nobody may be known to provide `path`, in words that go on after "nobody is known to provide it: " and end
    /// with the command that says more, or with what to do: while a handler holds a loop of this process, that.
    virtual std::string whyUnknown(const std::string& path) const = 0;
    /// What keeps what is resolved by this locator from answering: why it is not connected, that its process is
    /// stopped, or that a handler holds this process's I/O loop. Empty when nothing is known to, and when nothing is
    /// resolved by it.
    virtual std::string obstacle(const url& locator) const = 0;
    /// `whyUnknown` for who has asked the registry, and so can tell that it names nobody from that it has not answered.
    virtual std::string whyUnknownWhenAsked(const std::string& path, bool hasAnswered) const;

    /// What holds each loop over which this process hears of others, for whoever watches that.
    virtual std::vector<std::shared_ptr<const comm::LoopHold>> holds() const;

    /// A loop that one call has held for long.
    struct HeldLoop {
        std::string loop;       ///< as `comm::LoopHold::loop`
        std::string holder;     ///< whom it calls
        comm::TimeNs since = 0; ///< by `comm::now`
        /// Of one of the program's own, given to `kesa::on`, which may be held: how many requests wait for it.
        std::optional<unsigned> waiting = {};
        std::vector<std::string> services = {}; ///< paths that are served on such a loop, as far as they are known
    };
    /// Which are held now, from whoever watches them: first when that begins, then each time others are. Tools read it
    /// while this process cannot be asked.
    virtual void tellHeld(const std::vector<HeldLoop>& held) const;
    /// A handler on `loop`, one of the program's own or, when it is empty, the I/O loop, takes the values of `path`
    /// more slowly than they come: a stream was given up for that, and is asked for again. Tools read it.
    virtual void tellTooSlow(const std::string& path, const std::string& loop) const;
};

} // namespace kesa::runtime::v02

#endif
