// Requests, responses and payloads: copies never see each other's changes, and arrived headers are decoded once.
#include <kesa/Payload.h>
#include <kesa/Request.h>
#include <kesa/Response.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/processName.h>
#include <kesa/reasonOf.h>

#include <atomic>
#include <thread>

namespace {

using namespace kesa;

class CountingSource : public IHeaderSource {
public:
    GenericObject decode() const override
    {
        ++decoded;
        return GenericObject{{"$accept", "application/json"}, {"x", 1}};
    }
    util::config::Value find(std::string_view name) const override { return name == "x" ? 1 : util::config::Value(); }
    mutable std::atomic<int> decoded{0};
};

TEST(Payload, KeepsBytesAndFormat)
{
    util::ByteBufferWriter writer(1024);
    writer.append("{}");
    const unsigned char* const bytes = writer.data();
    const Payload payload = Payload::createFromWriter(std::move(writer), "application/json");
    EXPECT_EQ(payload.data(), bytes) << "the bytes are taken, not copied";
    EXPECT_EQ(payload.text(), "{}");
    Payload copy;
    {
        const Payload unknown = Payload::createFromString("short", std::string("x/unknown"));
        copy = unknown;
    }
    EXPECT_EQ(std::string(copy.text()) + " " + std::string(copy.getMimeType()), "short x/unknown");
}

TEST(Request, DecodesArrivedHeadersOnceForAllCopies)
{
    const auto source = std::make_shared<CountingSource>();
    const Request request("retrieve", "/a", Payload(), std::shared_ptr<const IHeaderSource>(source));
    EXPECT_EQ(request.getHeader("x"), 1);
    EXPECT_EQ(source->decoded, 0);
    std::vector<const GenericObject*> seen(4);
    std::vector<std::thread> readers;
    for (const GenericObject*& mine : seen) {
        readers.emplace_back([copy = request, &mine] { mine = &copy.getHeaders(); });
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_THAT(seen, testing::Each(&request.getHeaders()));
    const int decoded = source->decoded; // who asks at once may decode too

    Request changed = request;
    changed.setMimeType("application/vnd.qelbin");
    headers::appendTimeout(changed, std::chrono::milliseconds(5));
    EXPECT_EQ(changed.getHeaders(), (GenericObject{{"$accept", "application/vnd.qelbin"}, {"$timeout", 5}, {"x", 1}}));
    EXPECT_EQ(request.getMimeTypeHeader().stringView(), "application/json") << "the others stay";
    EXPECT_EQ(source->decoded, decoded);
}

TEST(Request, OwnHeadersAreNotShared)
{
    const auto headers = std::make_shared<GenericObject>();
    Request request(commands::INSERT, "/a", Payload(), headers);
    headers->set("late", true);
    const Request before = request;
    headers::appendTracingInfo(request, "/registry", "me");
    headers::appendAuthInfo(request);
    headers::setAuthTokenProvider([](std::string_view) { return ""; });
    headers::appendAuthInfo(request);
    headers::setAuthTokenProvider(nullptr);
    headers::appendTimeout(request, std::chrono::milliseconds(5));
    headers::appendTimeout(request, std::chrono::milliseconds(7));
    EXPECT_TRUE(before.getHeaders().empty());
    EXPECT_EQ(request.getHeaders(),
              (GenericObject{{"$service-path", "/registry"}, {"$timeout", 7}, {"$trace-id", "me"}}));
    Request other("retrieve", "/"); // of the same limit as the next one
    Request more("retrieve", "/");
    headers::appendTimeout(other, std::chrono::milliseconds(5));
    headers::appendTimeout(more, std::chrono::milliseconds(5));
    more.setHeader("x", 1);
    EXPECT_EQ(other.getHeaders(), (GenericObject{{"$timeout", 5}}));
    EXPECT_EQ(more.getHeaders(), (GenericObject{{"$timeout", 5}, {"x", 1}}));
    Response response(200, Payload());
    headers::appendRequestInfo(response, RequestInfo(request));
    EXPECT_EQ(response.getHeaders(),
              (GenericObject{{"$request-command", "insert"}, {"$request-path", "/a"}, {"$service-path", "/registry"}}));
}

TEST(Response, HasAnErrorText)
{
    const Response taken = Response::createErrorResponse(409, "service already registered");
    EXPECT_EQ(Response::getErrorMessageWithCode(taken), "409: service already registered");
    const Response binary(500, Payload::createFromString("\x01", mimetypes::QELBIN));
    EXPECT_EQ(Response::getErrorMessageWithCode(binary), "500");
    Response bare = Response::createErrorResponse(409);
    headers::appendReason(bare, "");
    EXPECT_EQ(reasonOf(bare), "409");
    headers::appendReason(bare, "held by process player (pid 812)");
    EXPECT_EQ(Response::getErrorMessageWithCode(bare), "409");
    EXPECT_EQ(reasonOf(bare), "409: held by process player (pid 812)");
}

TEST(Process, IsNamedByOneTo64BytesOfText)
{
    EXPECT_EQ(complaintAboutProcessName("m\xC3\xA9" + std::string(61, 'a')), "");
    const std::string rule = "cannot be the name of this process: a name has 1 to 64 bytes, and this one ";
    EXPECT_EQ(complaintAboutProcessName(""), "\"\" " + rule + "0");
    const std::string longer(65, 'a');
    EXPECT_EQ(complaintAboutProcessName(longer), '"' + longer + "\" " + rule + "65");
}

} // namespace
