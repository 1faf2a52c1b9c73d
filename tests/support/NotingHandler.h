#ifndef KESA_TESTS_SUPPORT_NOTINGHANDLER_H
#define KESA_TESTS_SUPPORT_NOTINGHANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <kesa/reasonOf.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kesa::test {

using Lines = std::vector<std::string>;

/// Notes what a stream tells: each value as `form` words it, an error as "503: gone" with its reason, "done", and its
/// own end as "~", all behind the name it was given.
template <class T>
class NotingHandler final : public IResponseHandler<T> {
public:
    using Form = std::function<std::string(const T&)>;
    using Note = std::function<void(const std::string&)>;

    NotingHandler(Note note, Form form, std::string name = {}, bool accepts = true)
        : m_note(std::move(note)), m_form(std::move(form)), m_name(std::move(name)), m_accepts(accepts)
    {}
    NotingHandler(Lines& lines, Form form, std::string name = {}, bool accepts = true)
        : NotingHandler([&lines](const std::string& line) { lines.push_back(line); }, std::move(form), std::move(name),
                        accepts)
    {}
    ~NotingHandler() override { m_note(m_name + '~'); }
    bool onNext(const T& value) override
    {
        m_note(m_name + m_form(value));
        return !m_accepts;
    }
    void onError(const Response& error) override { m_note(m_name + reasonOf(error)); }
    void onCompleted() override { m_note(m_name + "done"); }

private:
    const Note m_note;
    const Form m_form;
    const std::string m_name;
    const bool m_accepts;
};

/// Notes the texts of answers.
inline std::unique_ptr<IResponseHandler<Response>> noteTexts(Lines& lines)
{
    return std::make_unique<NotingHandler<Response>>(
        lines, [](const Response& response) { return std::string(response.getPayload().text()); });
}

} // namespace kesa::test

#endif
