// Any bytes, read as one format: they are refused with a reason, or make a value that survives all formats.
#include "require.h"

#include <kesa/serializer/serialize.h>
#include <obr/ErrorStorage.h>
#include <util/serializer/WireMeter.h>
#include <util/serializer/formats.h>

#include <algorithm>

using namespace util::serializer;
using util::config::Value;

namespace {

bool write(Format format, const Value& value, util::ByteBufferWriter& out)
{
    const auto serializer = makeSerializer(format);
    bool hasContent = false;
    return serializer->attach(out) || kesa::serializer::serialize(*serializer, value) ||
           serializer->finish(hasContent) || !hasContent;
}

bool read(Format format, std::string_view bytes, Value& value)
{
    const auto deserializer = makeDeserializer(format);
    util::ByteBufferReader in(bytes.data(), bytes.size(), false);
    return deserializer->attach(in) || kesa::serializer::deserialize(*deserializer, value) || deserializer->finish();
}

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
    Value value;
    const bool failed = read(Format::KESA_FUZZ_FORMAT, bytes, value);
    require(failed == obr::ErrorStorage::isError());
    if (failed) {
        require(!obr::ErrorStorage::reason().empty());
        return 0;
    }
    skipWhole(bytes);
    std::size_t longest = 0;
    for (const Format format : {Format::eJSON, Format::eMSGPACK, Format::eQELBIN}) {
        util::ByteBufferWriter out(64);
        Value back;
        require(!write(format, value, out));
        require(!read(format, out.text(), back));
        require(back == value);
        longest = format == Format::eMSGPACK ? longest : std::max(longest, out.size());
    }
    WireMeter meter;
    util::ByteBufferWriter json(64);
    std::size_t metered = 0;
    require(!kesa::serializer::serialize(meter.begin(json), value) && !meter.end(metered) && metered == longest);
    return 0;
}
