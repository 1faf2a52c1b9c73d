#ifndef KESA_TESTS_SUPPORT_NOTINGHANDLER_H
#define KESA_TESTS_SUPPORT_NOTINGHANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kesa::test {

using Lines = std::vector<std::string>;

/// Notes what a stream tells: each value as `form` words it, an error as "503: gone", "done", and its own end as "~",
/// all behind the name it was given.
template <class T>
class NotingHandler final : public IResponseHandler<T> {
public:
    using Form = std::function<std::string(const T&)>;

    NotingHandler(Lines& lines, Form form, std::string name = {}, bool accepts = true)
        : m_lines(lines), m_form(std::move(form)), m_name(std::move(name)), m_accepts(accepts)
    {}
    ~NotingHandler() override { note("~"); }
    bool onNext(const T& value) override
    {
        note(m_form(value));
        return !m_accepts;
    }
    void onError(const Response& error) override { note(Response::getErrorMessageWithCode(error)); }
    void onCompleted() override { note("done"); }

private:
    void note(const std::string& text) const { m_lines.push_back(m_name + text); }

    Lines& m_lines;
    Form m_form;
    std::string m_name;
    bool m_accepts;
};

/// Notes the texts of answers.
inline std::unique_ptr<IResponseHandler<Response>> noteTexts(Lines& lines)
{
    return std::make_unique<NotingHandler<Response>>(
        lines, [](const Response& response) { return std::string(response.getPayload().text()); });
}

} // namespace kesa::test

#endif
