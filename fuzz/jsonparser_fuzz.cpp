// Any text: it is refused with line and column, or its text form reads back as the same value.
#include "require.h"

#include <obr/ErrorStorage.h>
#include <util/config/Dictionary.h>
#include <util/config/JSONParser.h>

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const util::config::JSONParser parser;
    util::config::Value value;
    obr::ErrorStorage::ack();
    if (parser.parseString(text, value)) {
        const std::string reason = obr::ErrorStorage::reason();
        require(reason.find(": ") != std::string::npos && reason[0] >= '1' && reason[0] <= '9');
        return 0;
    }
    util::config::Dictionary* raw = nullptr;
    require(parser.parseStringToDict(text, &raw) == !value.isDictionary());
    const std::unique_ptr<util::config::Dictionary> dictionary(raw);
    require(dictionary == nullptr || *dictionary == value.dictionary());

    const util::config::Value wrapped = util::config::Value::Array{value};
    util::config::Value back;
    if (parser.parseString(wrapped.toText(), back)) {
        // Only the additional level may have been one too many.
        require(obr::ErrorStorage::reason().find("nested too deeply") != std::string::npos);
    } else {
        require(back == wrapped);
    }
    return 0;
}
