#ifndef KESA_RECEIPT_H
#define KESA_RECEIPT_H

#include <obr/api.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace kesa {

/// That a value of a persistent stream is not handled yet. The provider sends so many bytes of values that were not
/// handled, and no more ("stream_window_bytes"); a value counts as handled when the call of its handler returns. A
/// handler that only hands it on takes the receipt with it, inside of that call, and destroys it when the value has
/// been handled there: on any thread, but not with a lock held that a handler takes. Who keeps receipts for good stops
/// the stream.
class KESA_API Receipt {
public:
    /// Whom receipts are given back to.
    class KESA_API IIssuer {
    public:
        virtual ~IIssuer() = default;
        /// Any thread.
        virtual void handled(std::uint64_t request, std::size_t bytes) noexcept = 0;
    };

    /// Of nothing.
    Receipt() noexcept = default;
    Receipt(std::weak_ptr<IIssuer> issuer, std::uint64_t request, std::size_t bytes) noexcept;
    Receipt(Receipt&& other) noexcept;
    Receipt& operator=(Receipt&&) = delete;
    ~Receipt();

    /// That of the value which is being handled on this thread, once; then, and outside of such a call, one of nothing.
    [[nodiscard]] static Receipt take() noexcept;

    /// The scope of a call in which a receipt may be taken. One that was not is destroyed with the scope.
    class Scope;

private:
    std::weak_ptr<IIssuer> m_issuer;
    std::uint64_t m_request = 0;
    std::size_t m_bytes = 0; ///< 0: of nothing
};

class KESA_API Receipt::Scope {
public:
    explicit Scope(Receipt&& receipt) noexcept;
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

private:
    friend Receipt;
    Receipt m_receipt;
    Scope* const m_outer;
};

} // namespace kesa

#endif
