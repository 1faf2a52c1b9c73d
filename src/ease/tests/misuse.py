#!/usr/bin/env python3
"""misuse.py COMPILER INCLUDE_DIRECTORIES: what must not compile ends in one error, and that is a sentence that says what to do."""

import subprocess
import sys

ROUTE = "a route's function takes"
ANSWER = "a route's function returns"
MISUSES = {
    'service.onRetrieve("/a", [](kesa::Responder) {});': ROUTE,
    'service.onUpdate("/a", [](const kesa::Request&, kesa::Responder&) {});': ROUTE,
    'service.onUpdate("/a", 7);': ROUTE,
    'service.onRetrieve("/a", [](const kesa::Request&, kesa::Responder) { return 7; });': "a route's function that takes a kesa::Responder",
    'service.onRetrieve("/a", [](const kesa::Request& request) { return &request; });': ANSWER,
    'service.onRetrieve("/a", [](const kesa::Request&) { return std::vector<int>(); });': ANSWER,
    'service.onRetrieve("/a", [](const kesa::Request&) { enum { eLOUD } volume = eLOUD; return volume; });': ANSWER,
    "auto v = kesa::body<std::vector<int>>(kesa::Request());": "kesa::body<T> is for a T that",
    "auto p = kesa::asPayload(std::vector<int>());": "kesa::asPayload takes",
    "auto h = kesa::handler<int>([](const std::string&) {});": "the first function of kesa::handler<T> takes",
    "auto h = kesa::handler<int>([](int) { return std::string(); });": "the first function of kesa::handler<T> takes",
    "auto h = kesa::handler<int>([](int) {}, [](int) {});": "the second function of kesa::handler<T> takes",
    "auto h = kesa::handler<int>([](int) {}, [](auto&) {}, [](int) {});": "the third function of kesa::handler<T> takes",
    "kesa::Topic<std::vector<int>>().publish({});": "kesa::Topic<T> and kesa::Property<T> are for",
    "kesa::use(\"/a\")->onChange([] {});": "the function of kesa::Client::onChange takes",
    "kesa::use(\"/a\")->whenConnected([](bool) {});": "the function of kesa::Client::whenConnected takes",
    "kesa::use(\"/a\")->follow(kesa::Request(), [](const kesa::Response&) {});": "kesa::Client::follow takes",
}
GOOD = [
    'service.onRetrieve("/a", [](const kesa::Request&, kesa::Responder) {});',
    'service.onRetrieve("/a", [](const auto&, const auto& reply) { reply.complete(); });',
    'service.onRetrieve("/a", [](const auto&) { return "text"; });',
    "auto h = kesa::handler<int>([](int) { return false; }, [](auto&) {}, [] {});",
    'auto c = kesa::use("/a"); c->onChange([](auto) {}); c->whenConnected([c] {});',
    'kesa::use("/a")->follow(kesa::Request(), kesa::handler<kesa::Response>([](auto&) {}));',
]


def main():
    # One source, since the headers cost most of the time.
    source = "#include <kesa/ease/ResourceHandler.h>\n#include <kesa/ease/Topic.h>\n#include <kesa/ease/handler.h>\n#include <kesa/ease/use.h>\n"
    for number, code in enumerate([*GOOD, *MISUSES]):
        source += f"void user{number}([[maybe_unused]] kesa::ResourceHandler& service) {{ {code} }}\n"
    command = [sys.argv[1], "-std=c++17", "-fsyntax-only", "-x", "c++", "-"]
    command += [option for folder in sys.argv[2].split(";") for option in ("-I", folder)]
    result = subprocess.run(command, input=source, capture_output=True, text=True, check=False)
    errors = [line for line in result.stderr.splitlines() if "error:" in line]
    expected = sorted(MISUSES.values())
    found = sorted(next((text for text in expected if text in error), error) for error in errors)
    if found != expected:
        print("\n".join(errors), f"\n{len(errors)} errors instead of one for each of {len(expected)} misuses")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
