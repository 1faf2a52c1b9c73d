#include "StructuredWriter.h"

#include <obr/ErrorOutput.h>
#include <obr/errors.h>
#include <obr/utf8.h>
#include <util/serializer/formats.h>

#include <cmath>
#include <limits>

namespace util::serializer {

namespace {

constexpr std::size_t USUAL_DEPTH = 6;

} // namespace

IStructuredSerializer::~IStructuredSerializer() = default;

StructuredWriter::StructuredWriter(const IEncoder& encoder) noexcept : m_encoder(encoder) {}

bool StructuredWriter::fail(const char* problem) const
{
    return obr::ErrorOutput(__FILE__, __LINE__, true)(obr::errors::Error, obr::errors::TEXT, problem);
}

bool StructuredWriter::attach(ByteBufferWriter& out)
{
    if (m_out != nullptr) {
        return fail("the serializer is in use: reset it first");
    }
    m_out = &out;
    m_open.reserve(USUAL_DEPTH); // not before: many streams keep a serializer that they hardly use
    m_open.push_back({Kind::eROOT, Due::eVALUE, out.size(), 0});
    return false;
}

void StructuredWriter::reset()
{
    m_out = nullptr;
    m_open.clear();
}

/// Whether a value may be written now; if so, it counts as written.
bool StructuredWriter::claimValue()
{
    if (m_open.empty() || m_open.back().due != Due::eVALUE) {
        return fail(m_out == nullptr ? "the serializer is attached to nothing"
                                     : "a value may not be written here: begin a member or an element first");
    }
    m_open.back().due = Due::eITEM_END;
    return false;
}

bool StructuredWriter::claimText(std::string_view text) const
{
    if (text.size() > std::numeric_limits<std::uint32_t>::max()) {
        return fail("a string is too long to be written");
    }
    return !obr::isUtf8(text) && fail("a string that is not valid UTF-8 cannot be written");
}

bool StructuredWriter::begin(Kind kind)
{
    if (m_open.size() > MAX_DEPTH) {
        return fail("arrays and objects are nested too deeply (at most 128)");
    }
    if (claimValue()) {
        return true;
    }
    m_open.push_back({kind, Due::eITEM_OR_END, m_out->size(), 0});
    return false;
}

bool StructuredWriter::beginItem(Kind kind, const char* problem)
{
    if (m_open.empty() || m_open.back().kind != kind || m_open.back().due != Due::eITEM_OR_END) {
        return fail(problem);
    }
    m_open.back().due = Due::eVALUE;
    ++m_open.back().count;
    return false;
}

bool StructuredWriter::endItem(Kind kind, const char* problem)
{
    if (m_open.empty() || m_open.back().kind != kind || m_open.back().due != Due::eITEM_END) {
        return fail(problem);
    }
    m_open.back().due = Due::eITEM_OR_END;
    return false;
}

bool StructuredWriter::claimEnd(Kind kind, const char* problem) const
{
    const bool mayEnd = !m_open.empty() && m_open.back().kind == kind && m_open.back().due == Due::eITEM_OR_END;
    return !mayEnd && fail(problem);
}

bool StructuredWriter::beginObject()
{
    if (begin(Kind::eOBJECT)) {
        return true;
    }
    m_encoder.beginObject(*m_out);
    return false;
}

bool StructuredWriter::memberName(std::string_view name)
{
    if (claimText(name) ||
        beginItem(Kind::eOBJECT, "a member's name may be written only in an object, between members")) {
        return true;
    }
    m_encoder.memberName(*m_out, name, m_open.back().count == 1);
    return false;
}

bool StructuredWriter::endMember()
{
    return endItem(Kind::eOBJECT, "a member ends only in an object, after its value");
}

bool StructuredWriter::endObject()
{
    if (claimEnd(Kind::eOBJECT, "an object ends only where it began, between members")) {
        return true;
    }
    m_encoder.endObject(*m_out, m_open.back().begin, m_open.back().count);
    m_open.pop_back();
    return false;
}

bool StructuredWriter::beginArray()
{
    if (begin(Kind::eARRAY)) {
        return true;
    }
    m_encoder.beginArray(*m_out);
    return false;
}

bool StructuredWriter::beginElement()
{
    if (beginItem(Kind::eARRAY, "an element begins only in an array, between elements")) {
        return true;
    }
    m_encoder.beginElement(*m_out, m_open.back().count == 1);
    return false;
}

bool StructuredWriter::endElement()
{
    return endItem(Kind::eARRAY, "an element ends only in an array, after its value");
}

bool StructuredWriter::endArray()
{
    if (claimEnd(Kind::eARRAY, "an array ends only where it began, between elements")) {
        return true;
    }
    m_encoder.endArray(*m_out, m_open.back().begin, m_open.back().count);
    m_open.pop_back();
    return false;
}

bool StructuredWriter::stringValue(std::string_view value)
{
    if (claimText(value) || claimValue()) {
        return true;
    }
    m_encoder.stringValue(*m_out, value);
    return false;
}

bool StructuredWriter::boolValue(bool value)
{
    if (claimValue()) {
        return true;
    }
    m_encoder.boolValue(*m_out, value);
    return false;
}

bool StructuredWriter::nullValue()
{
    if (claimValue()) {
        return true;
    }
    m_encoder.nullValue(*m_out);
    return false;
}

bool StructuredWriter::intValue(std::int64_t value)
{
    if (claimValue()) {
        return true;
    }
    m_encoder.intValue(*m_out, value);
    return false;
}

bool StructuredWriter::uintValue(std::uint64_t value)
{
    if (claimValue()) {
        return true;
    }
    m_encoder.uintValue(*m_out, value);
    return false;
}

bool StructuredWriter::doubleValue(double value)
{
    if (!std::isfinite(value)) {
        return fail("a number that is not finite cannot be written");
    }
    if (claimValue()) {
        return true;
    }
    m_encoder.doubleValue(*m_out, value);
    return false;
}

bool StructuredWriter::finish(bool& hasContent)
{
    if (m_open.empty()) {
        return fail("the serializer is attached to nothing");
    }
    if (m_open.size() > 1) {
        return fail("an array or object that was begun is not ended");
    }
    hasContent = m_open.front().due == Due::eITEM_END;
    return false;
}

} // namespace util::serializer
