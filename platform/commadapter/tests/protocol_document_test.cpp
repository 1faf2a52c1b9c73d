// Replays the vectors of docs/protocol.md and docs/protocol_registry.md: what each says is heard, and writing that
// again gives the same bytes.

#include "protocol_support.h"

#include <gtest/gtest.h>

#include <fstream>

namespace kesa::commadapter::protocol {
namespace {

using namespace testing;

struct Vector {
    std::string sender; ///< "client" or "server"
    char mark = ':';
    std::string text;
    Bytes bytes;
};

/// "bf 01", or "61*10"
void appendWord(const std::string& word, Bytes& bytes)
{
    const std::size_t star = word.find('*');
    const auto byte = static_cast<unsigned char>(std::stoul(word.substr(0, star), nullptr, 16));
    bytes.insert(bytes.end(), star == std::string::npos ? 1 : std::stoul(word.substr(star + 1)), byte);
}

/// Words and a comment, or text behind "|".
void appendLine(const std::string& line, Bytes& bytes)
{
    if (line.substr(0, 1) == "|") {
        bytes.insert(bytes.end(), line.begin() + 1, line.end());
        return;
    }
    std::istringstream words(line.substr(0, line.find('#')));
    for (std::string word; words >> word;) {
        appendWord(word, bytes);
    }
}

void readVectors(const char* document, std::vector<Vector>& vectors)
{
    std::ifstream in(std::string(KESA_DOCS "/") + document);
    bool isInside = false;
    for (std::string line; std::getline(in, line);) {
        if (line == "```vector") {
            isInside = true;
            std::getline(in, line);
            const std::size_t end = line.find(' ');
            vectors.push_back({line.substr(0, end - 1), line[end - 1], line.substr(end + 1), {}});
        } else if (line == "```") {
            isInside = false;
        } else if (isInside) {
            appendLine(line, vectors.back().bytes);
        }
    }
}

Bytes helloBytes(Role role, const Hello& hello)
{
    Recorder nobody;
    Limits limits;
    limits.maxMessageBytes = hello.maxMessageBytes;
    limits.streamWindow = hello.streamWindow;
    Machine machine(role, hello, limits, nobody, 0);
    return takeAll(machine);
}

/// What was heard, in the words of the document: a large body is given by its size alone, without the hash.
std::string heard(const Recorder& hearer, Machine& receiver, const std::string& text)
{
    if (!hearer.lines.empty()) {
        std::string line = hearer.lines.back();
        if (const std::size_t hash = line.find('#'); hash != std::string::npos) {
            line.erase(hash, line.find_first_not_of("0123456789", hash + 1) - hash);
        }
        return line;
    }
    if (text == "pong") {
        return text; // nobody hears it
    }
    return receiver.input.takePongsOwed() == 1 ? "ping" : "(nothing)";
}

TEST(ProtocolDocument, ItsVectorsAreReadAndWritten)
{
    std::vector<Vector> vectors;
    readVectors("protocol.md", vectors);
    ASSERT_GE(vectors.size(), 20U);
    const std::size_t general = vectors.size();
    readVectors("protocol_registry.md", vectors);
    ASSERT_GE(vectors.size(), general + 10);
    for (const Vector& vector : vectors) {
        SCOPED_TRACE(vector.sender + vector.mark + ' ' + vector.text);
        const bool isFromClient = vector.sender == "client";
        const auto sender = isFromClient ? Role::eCLIENT : Role::eSERVER;
        Recorder hearer;
        Recorder nobody;
        Machine echo(sender, helloOf("me"), {}, nobody, 0);
        takeAll(echo);
        hearer.echo = &echo;
        Machine receiver(isFromClient ? Role::eSERVER : Role::eCLIENT, helloOf("me"), {}, hearer, 0);
        if (vector.bytes.at(4) != static_cast<unsigned char>(Kind::eHELLO)) {
            ASSERT_FALSE(feed(receiver, helloBytes(sender, helloOf("peer"))));
            hearer.lines.clear();
        }
        if (vector.mark == '!') {
            EXPECT_TRUE(feed(receiver, vector.bytes));
            EXPECT_EQ(receiver.input.reason(), vector.text);
            continue;
        }
        ASSERT_FALSE(feed(receiver, vector.bytes)) << receiver.input.reason();
        EXPECT_EQ(heard(hearer, receiver, vector.text), vector.text);
        if (vector.mark == ':') {
            if (vector.text == "ping") {
                echo.output.ping();
            } else if (vector.text == "pong") {
                echo.output.pong();
            }
            const bool isHello = vector.text.rfind("hello", 0) == 0;
            EXPECT_EQ(isHello ? helloBytes(sender, hearer.hello) : takeAll(echo), vector.bytes);
        }
    }
}

} // namespace
} // namespace kesa::commadapter::protocol
