#include "parseDocument.h"

#include <obr/ErrorOutput.h>
#include <obr/errors.h>
#include <util/config/JSONParser.h>

namespace util::config {
namespace {

bool fail(std::string_view problem)
{
    return obr::ErrorOutput(__FILE__, __LINE__, true)(obr::errors::Error, obr::errors::TEXT, problem);
}

} // namespace

JSONParser::JSONParser(bool) noexcept {}

bool JSONParser::parseString(std::string_view text, Value& out) const
{
    m_complaints.clear();
    if (!parseDocument(text, out, m_complaints)) {
        return false;
    }
    Complaint problem = m_complaints.back();
    problem.advice.clear(); // the text may be anything, the advice is for the writer of a file
    return fail(problem.sentence(""));
}

bool JSONParser::parseStringToDict(const std::string& text, Dictionary** out) const
{
    Value root;
    if (parseString(text, root)) {
        return true;
    }
    if (!root.isDictionary()) {
        m_complaints.push_back({Complaint::Severity::eERROR,
                                {},
                                "expected an object, found " + described(root),
                                "the document must be an object: { ... }"});
        return fail("root is not dictionary");
    }
    *out = new Dictionary(root.dictionary());
    return false;
}

} // namespace util::config
