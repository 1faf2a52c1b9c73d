// Any bytes, read as one format: they are refused with a reason, or make a value that survives all formats.
#include "ValueWalk.h"
#include "require.h"

#include <obr/ErrorStorage.h>

using namespace util::serializer;

namespace {

/// Skipping must come to the same end as reading.
void skipWhole(std::string_view bytes)
{
    const auto reader = makeDeserializer(Format::KESA_FUZZ_FORMAT);
    util::ByteBufferReader in(bytes.data(), bytes.size(), false);
    require(!reader->attach(in) && !reader->skipValue() && !reader->finish());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    obr::ErrorStorage::ack();
    test::Value value;
    const bool failed = test::read(Format::KESA_FUZZ_FORMAT, bytes, value);
    require(failed == obr::ErrorStorage::isError());
    if (failed) {
        require(!obr::ErrorStorage::reason().empty());
        return 0;
    }
    skipWhole(bytes);
    for (const Format format : {Format::eJSON, Format::eMSGPACK, Format::eQELBIN}) {
        util::ByteBufferWriter out(64);
        test::Value back;
        require(!test::write(format, value, out));
        require(!test::read(format, out.text(), back));
        require(back == value);
    }
    return 0;
}
