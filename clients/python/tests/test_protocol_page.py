"""Every message that the pages spell out, byte by byte: read as they say, written as they say, refused where they say."""

from __future__ import annotations

import json
import os
import re
import unittest
import uuid

from kesa import frames
from kesa.errors import ProtocolError

_DOCS = os.path.join(os.path.dirname(__file__), "..", "..", "..", "docs")
_NAMES = {
    frames.ATTACH: "attach",
    frames.ATTACHED: "attached",
    frames.DETACHED: "detached",
    frames.REQUEST: "request",
    frames.NEXT: "next",
    frames.ERROR: "error",
    frames.COMPLETED: "completed",
    frames.CANCEL: "cancel",
    frames.PING: "ping",
    frames.PONG: "pong",
    frames.GOODBYE: "goodbye",
    frames.CREDIT: "credit",
    frames.REQUEST_CREDIT: "request credit",
}


def vectors() -> list[tuple[str, str, str, bytes]]:
    """Sender, sign, what is heard, bytes."""
    found = []
    for page in ("protocol.md", "protocol_registry.md"):
        with open(os.path.join(_DOCS, page), encoding="utf-8") as file:
            for block in re.findall(r"^```vector\n(.*?)^```", file.read(), re.MULTILINE | re.DOTALL):
                title, *lines = block.splitlines()
                sender, sign, heard = re.fullmatch(r"(client|server)([:~!]) (.*)", title).groups()
                found.append((sender, sign, heard, b"".join(_bytes(line) for line in lines)))
    return found


def _bytes(line: str) -> bytes:
    if line.startswith("|"):
        return line[1:].encode()
    data = b""
    for word in line.split("#")[0].split():
        byte, _, times = word.partition("*")
        data += bytes.fromhex(byte) * int(times or 1)
    return data


def describe(message: frames.Message, long_body: bool) -> str:
    """As the titles of the vectors do; a long body is given by its size."""
    head = message.head
    if message.kind == frames.HELLO:
        words = [f"hello {head.lowest}..{head.highest}", head.process, head.realm, str(uuid.UUID(bytes=head.instance))]
        return " ".join([*words, str(head.limit), str(head.window), *head.listeners])
    words = [_NAMES[message.kind]]
    words += [str(message.stream)] if message.stream else []
    words += [str(message.target)] if message.target else []
    if message.kind == frames.REQUEST:
        words += [head.command, head.path]
    elif message.kind == frames.ATTACH:
        words += [head.path]
    elif message.kind == frames.GOODBYE:
        words += [head.reason]
    if message.kind in (frames.REQUEST, frames.NEXT, frames.ERROR):
        body = str(len(message.body)) if long_body else message.body.decode()
        words.append(f"<{head.mime_type}>{body}")
        if head.headers:
            words.append(json.dumps(head.headers, sort_keys=True, separators=(",", ":")))
    return " ".join(words)


def fragments(message: frames.Message) -> list[bytes]:
    """The frames of a large message, one by one."""
    data, size = message.encode(), 16 + frames.LARGEST_FRAME
    return [data[at : at + size] for at in range(0, len(data), size)]


class ProtocolPage(unittest.TestCase):
    def read(self, sender: str, data: bytes, piece: int) -> list[frames.Message]:
        decoder = frames.Decoder(sender)
        return [message for at in range(0, len(data), piece) for message in decoder.feed(data[at : at + piece])]

    def test_what_is_read_and_written(self) -> None:
        for sender, sign, heard, data in vectors():
            if sign == "!":
                continue
            with self.subTest(heard):
                for piece in (1, 7, len(data)):
                    messages = self.read(sender, data, piece)
                    said = "\n".join(describe(message, f">{len(message.body)}" in heard) for message in messages)
                    self.assertEqual(said or "(nothing)", heard)
                if sign == ":":
                    self.assertEqual(b"".join(message.encode() for message in messages), data)

    def test_what_is_refused(self) -> None:
        for sender, sign, heard, data in vectors():
            if sign == "!":
                with self.subTest(heard), self.assertRaises(ProtocolError):
                    self.read(sender, data, len(data))

    def test_fragments_of_several_streams_in_turn(self) -> None:
        one, two = (frames.Message(frames.NEXT, stream, 200, body=bytes([stream]) * 200_000) for stream in (1, 2))
        parts = [fragments(message) for message in (one, two)]
        mixed = b"".join(part for pair in zip(*parts) for part in pair)
        self.assertEqual([message.body for message in self.read("server", mixed, 1000)], [one.body, two.body])

    def test_fragments_that_are_no_message(self) -> None:
        message = frames.Message(frames.NEXT, 1, 200, body=bytes(200_000))
        parts = fragments(message)
        other = frames.Message(frames.COMPLETED, 1).encode()
        for name, wrong in {
            "one left out": [parts[0], *parts[2:]],
            "one too many": [parts[0], parts[1], *parts[1:]],
            "its stream's end within": [parts[0], other],
            "short": [parts[0], parts[-1]],
        }.items():
            with self.subTest(name), self.assertRaises(ProtocolError):
                self.read("server", b"".join(wrong), 65536)

    def test_a_message_over_the_limit_is_refused_at_its_first_frame(self) -> None:
        message = frames.Message(frames.NEXT, 1, 200, body=bytes(100_000))
        parts = fragments(message)
        size = sum(len(part) - 16 for part in parts)
        self.assertEqual(len(list(frames.Decoder("server", size).feed(message.encode(size)))), 1)
        with self.assertRaisesRegex(ProtocolError, f"{size} bytes, more than {size - 1}"):
            list(frames.Decoder("server", size - 1).feed(parts[0]))
        with self.assertRaisesRegex(OverflowError, f"{size} bytes, more than {size - 1}"):
            message.encode(size - 1)
