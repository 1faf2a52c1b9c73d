#ifndef UTIL_SERIALIZER_WIREMETER_H
#define UTIL_SERIALIZER_WIREMETER_H

#include <util/serializer/IStructuredSerializer.h>

#include <cstddef>
#include <memory>

namespace util::serializer {

/// Writes a value as JSON and tells how long it gets in JSON or in qelbin: for limits that hold in both. One value at a
/// time, any number of them. Not thread-safe.
class KESA_API WireMeter {
public:
    WireMeter();
    ~WireMeter();

    /// What a value is to be written to next; its JSON is appended to `json`, which is empty. It refuses what the
    /// formats cannot hold, as their own serializers do.
    IStructuredSerializer& begin(ByteBufferWriter& json);
    /// The bytes in the longer of the two forms. True when the value is not whole, with the reason in
    /// `obr::ErrorStorage`.
    [[nodiscard]] bool end(std::size_t& bytes);

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace util::serializer

#endif
