#include "protocol/Head.h"
#include "protocol/Vocabulary.h"

#include <kesa/headers.h>
#include <kesa/serializer/serialize.h>
#include <obr/ErrorStorage.h>
#include <obr/utf8.h>
#include <util/ByteBufferWriter.h>
#include <util/cbor.h>
#include <util/serializer/formats.h>

namespace kesa::commadapter::protocol {

using util::config::Value;
namespace cbor = util::cbor;

namespace {

bool isTooDeep(const Value& value, unsigned allowed)
{
    if (!value.isArray() && !value.isDictionary()) {
        return false;
    }
    if (allowed == 0) {
        return true;
    }
    for (const Value& element : value.items()) {
        if (isTooDeep(element, allowed - 1)) {
            return true;
        }
    }
    for (const auto& [name, element] : value) {
        if (isTooDeep(element, allowed - 1)) {
            return true;
        }
    }
    return false;
}

} // namespace

void HeadWriter::key(Key key)
{
    if (!m_isOpen) {
        cbor::putByte(m_out, cbor::INDEFINITE_MAP);
        m_isOpen = true;
    }
    cbor::putItem(m_out, cbor::Major::eUNSIGNED, static_cast<std::uint64_t>(key));
}

void HeadWriter::text(std::string_view text)
{
    // Refused here, since the receiver would take it for a broken head and end the connection.
    m_isInvalid = m_isInvalid || !obr::isUtf8(text);
    cbor::putText(m_out, text);
}

void HeadWriter::integer(Key key, std::uint64_t value)
{
    this->key(key);
    cbor::putItem(m_out, cbor::Major::eUNSIGNED, value);
}

void HeadWriter::member(Key key, std::string_view value)
{
    this->key(key);
    if (const auto number = vocabulary::numberOf(key, value)) {
        cbor::putItem(m_out, cbor::Major::eUNSIGNED, *number);
    } else {
        text(value);
    }
}

void HeadWriter::close()
{
    if (m_isOpen) {
        cbor::putByte(m_out, cbor::BREAK);
        m_isOpen = false;
    }
}

void HeadWriter::hello(const Hello& hello)
{
    integer(Key::eLOWEST_VERSION, hello.lowestVersion);
    integer(Key::eHIGHEST_VERSION, hello.highestVersion);
    member(Key::ePROCESS, hello.process);
    member(Key::eREALM, hello.realm);
    key(Key::eINSTANCE);
    cbor::putItem(m_out, cbor::Major::eBYTES, hello.instance.bytes().size());
    m_out.append(hello.instance.bytes().data(), hello.instance.bytes().size());
    key(Key::eLISTENERS);
    cbor::putByte(m_out, cbor::INDEFINITE_ARRAY);
    for (const std::string& listener : hello.listeners) {
        text(listener);
    }
    cbor::putByte(m_out, cbor::BREAK);
    integer(Key::eMAX_MESSAGE_BYTES, hello.maxMessageBytes);
    integer(Key::eSTREAM_WINDOW, hello.streamWindow);
}

void HeadWriter::attach(std::string_view path)
{
    member(Key::ePATH, path);
}

void HeadWriter::goodbye(std::string_view reason)
{
    member(Key::eREASON, reason);
}

void HeadWriter::mimeType(std::string_view name)
{
    if (!name.empty()) {
        member(Key::eMIME_TYPE, name);
    }
}

void HeadWriter::bodySize(std::size_t bytes)
{
    integer(Key::eBODY_SIZE, bytes);
}

void HeadWriter::request(const Request& request)
{
    if (!request.getCommand().empty()) {
        member(Key::eCOMMAND, request.getCommand());
    }
    if (!request.getPath().empty()) {
        member(Key::ePATH, request.getPath());
    }
    mimeType(request.getPayload().getMimeType());
    headers(request.getHeaders(), true);
}

void HeadWriter::response(const Response& response)
{
    mimeType(response.getPayload().getMimeType());
    headers(response.getHeaders(), false);
}

void HeadWriter::headers(const GenericObject& headers, bool isRequest)
{
    for (const auto& [name, value] : headers) {
        if (!value.isDefined() || (isRequest && name == kesa::headers::CLIENT_ID)) {
            continue; // the receiver says who the client is
        }
        const std::optional<Key> wellKnown = vocabulary::keyOf(name);
        if (wellKnown && value.isString()) {
            member(*wellKnown, value.stringView());
            continue;
        }
        // Under its name even when it is well-known: there a number would be read as a word.
        if (!m_isOpen) {
            cbor::putByte(m_out, cbor::INDEFINITE_MAP);
            m_isOpen = true;
        }
        text(name);
        this->value(value);
    }
}

void HeadWriter::value(const Value& value)
{
    std::int64_t integer = 0;
    bool flag = false;
    if (value.isString()) {
        text(value.stringView());
    } else if (!value.get(integer)) {
        cbor::putInteger(m_out, integer);
    } else if (!value.get(flag)) {
        cbor::putByte(m_out, flag ? cbor::TRUE_ITEM : cbor::FALSE_ITEM);
    } else if (value.isNull()) {
        cbor::putByte(m_out, cbor::NULL_ITEM);
    } else {
        structure(value);
    }
}

void HeadWriter::structure(const Value& value)
{
    obr::ErrorStorage::Slot pending; // what fails here is told by the answer, not by the caller's storage
    obr::ErrorStorage::exchange(pending);
    util::ByteBufferWriter bytes(256);
    const auto serializer = util::serializer::makeSerializer(util::serializer::Format::eQELBIN);
    bool hasContent = false;
    const bool failed = isTooDeep(value, VALUE_DEPTH) || serializer->attach(bytes) ||
                        serializer::serialize(*serializer, value) || serializer->finish(hasContent);
    obr::ErrorStorage::exchange(pending);
    // It must pass the receiver's check.
    m_isInvalid = m_isInvalid || failed || cbor::Reader(bytes.data(), bytes.size()).skip(VALUE_DEPTH);
    m_out.append(bytes.data(), bytes.size());
}

} // namespace kesa::commadapter::protocol
