"""What bus frames carry, read and written with nothing of the program.

Texts are `str`; bytes that are no UTF-8 survive in them as surrogates.
"""
import struct
from dataclasses import dataclass, field

import bus_wire
from bus_wire import WireError


def to_bytes(value):
    return value.encode("utf-8", "surrogateescape")


def to_text(data):
    return bytes(data).decode("utf-8", "surrogateescape")


class Reader(bus_wire.Reader):
    """Takes texts and lists off a payload too."""

    def text(self):
        return to_text(self.take(self.u16()))

    def all_of(self, read):
        return [read() for _ in range(self.u16())]

    def as_many_as_fit(self, read):
        """The whole entries of a list; behind one that is cut short nothing can be read any more."""
        entries = []
        try:
            for _ in range(self.u16()):
                entries.append(read())
        except WireError:
            self.cursor = len(self.data)
        return entries

    def text_if_it_fits(self):
        try:
            return self.text()
        except WireError:
            self.cursor = len(self.data)
            return ""


def u16(value):
    return struct.pack("<H", value)


def u32(value):
    return struct.pack("<I", value)


def text_of(data):
    return u16(len(data[:0xFFFF])) + data[:0xFFFF]


def text(value):
    return text_of(to_bytes(value))


def listed(entries, write):
    return u16(min(len(entries), 0xFFFF)) + b"".join(write(entry) for entry in entries[:0xFFFF])


def topic_id(topic):
    value = 0x811C9DC5
    for byte in to_bytes(topic).split(b"\0")[0]:
        value = ((value ^ byte) * 16777619) & 0xFFFFFFFF
    return (value ^ value >> 16) & 0xFFFF


@dataclass
class Identity:
    name: str = ""
    binary: str = ""
    version: int = 0
    group: str = ""
    extra: str = ""

    SIZE = 204
    TEXT_SIZE = 50

    def encode(self, longest=TEXT_SIZE - 1):
        texts = (to_bytes(value)[:longest] for value in (self.name, self.binary, self.group, self.extra))
        return struct.pack("<50s50s50s50sI", *texts, self.version)

    @staticmethod
    def decode(payload):
        if len(payload) < Identity.SIZE:
            return Identity()
        *texts, version = struct.unpack("<50s50s50s50sI", payload[:Identity.SIZE])
        name, binary, group, extra = (to_text(value.split(b"\0")[0]) for value in texts)
        return Identity(name, binary, version, group, extra)


def encode_identity_and_topic(identity, topic):
    return identity.encode() + to_bytes(topic)


def decode_topic_after_identity(payload):
    return to_text(payload[Identity.SIZE:])


def digit(flag):
    return "1" if flag else "0"


@dataclass
class TopicParam:
    name: str = ""
    text: str = ""
    flag: bool = False

    def to_part(self):
        return "\x1d".join((self.name, self.text, digit(self.flag)))

    @staticmethod
    def from_part(part):
        name, described, flag = (part.split("\x1d") + ["", ""])[:3]
        return TopicParam(name, described, flag == "1")

    def encode(self):
        return text(self.name) + text(self.text) + u16(self.flag)

    @staticmethod
    def read(reader):
        return TopicParam(reader.text(), reader.text(), reader.u16() != 0)


@dataclass
class TopicDescription:
    name: str = ""
    description: str = ""
    kind: int = 0  # 0 an event, 1 a request
    params: list = field(default_factory=list)
    flag: bool = False

    def to_line(self):
        params = "\x1e".join(param.to_part() for param in self.params)
        return "\x1f".join((self.name, self.description, digit(self.kind == 1), digit(self.flag), params))

    @staticmethod
    def from_line(line):
        name, description, kind, flag, params = (line.split("\x1f") + [""] * 4)[:5]
        return TopicDescription(name, description, int(kind == "1"),
                                [TopicParam.from_part(part) for part in params.split("\x1e")] if params else [],
                                flag == "1")

    def encode(self):
        return (text(self.name) + text(self.description) + u16(self.kind) + u16(self.flag)
                + listed(self.params, TopicParam.encode))

    @staticmethod
    def read(reader):
        name, description, kind, flag = reader.text(), reader.text(), reader.u16(), reader.u16()
        params = reader.all_of(lambda: TopicParam.read(reader))
        return TopicDescription(name, description, int(kind == 1), params, flag != 0)


def split_lines(joined):
    return joined.split("\n") if joined else []


def lines_that_fit(lines):
    """The lines in one text, without those for which it has no room."""
    joined = None
    for line in map(to_bytes, lines):
        longer = line if joined is None else joined + b"\n" + line
        if len(longer) <= 0xFFFF:
            joined = longer
    return text_of(joined or b"")


@dataclass
class DiscoveryRecord:
    name: str = ""
    address: int = 0
    hops: int = 0
    note: str = ""

    def encode(self):
        return text(self.name) + u32(self.address) + bytes([self.hops]) + text(self.note)

    @staticmethod
    def read(reader):
        return DiscoveryRecord(reader.text(), reader.u32(), reader.u8(), reader.text())


@dataclass
class HostedModule:
    address: int = 0
    name: str = ""
    topics: list = field(default_factory=list)

    def encode(self):
        return u32(self.address) + text(self.name) + listed(self.topics, text)

    @staticmethod
    def read(reader):
        return HostedModule(reader.u32(), reader.text(), reader.all_of(reader.text))


@dataclass
class DiscoveryResponse:
    identity: Identity = field(default_factory=Identity)
    publications: list = field(default_factory=list)
    subscriptions: list = field(default_factory=list)
    roles: list = field(default_factory=list)
    records: list = field(default_factory=list)
    modules: list = field(default_factory=list)

    def encode(self):
        return (self.identity.encode()
                + lines_that_fit([topic.to_line() for topic in self.publications])
                + lines_that_fit([topic.to_line() for topic in self.subscriptions])
                + listed(self.records, DiscoveryRecord.encode)
                + lines_that_fit(self.roles)
                + listed(self.modules, HostedModule.encode))

    @staticmethod
    def decode(payload):
        """What is there of it: all behind the first field that is cut short is absent."""
        reader = Reader(payload, min(Identity.SIZE, len(payload)))
        response = DiscoveryResponse(Identity.decode(payload))
        response.publications = [*map(TopicDescription.from_line, split_lines(reader.text_if_it_fits()))]
        response.subscriptions = [*map(TopicDescription.from_line, split_lines(reader.text_if_it_fits()))]
        response.records = reader.as_many_as_fit(lambda: DiscoveryRecord.read(reader))
        response.roles = split_lines(reader.text_if_it_fits())
        response.modules = reader.as_many_as_fit(lambda: HostedModule.read(reader))
        return response


@dataclass
class ModuleSummary:
    address: int = 0
    name: str = ""
    topics: list = field(default_factory=list)

    def encode(self):
        return u32(self.address) + text(self.name) + listed(self.topics, TopicDescription.encode)

    @staticmethod
    def read(reader):
        return ModuleSummary(reader.u32(), reader.text(), reader.all_of(lambda: TopicDescription.read(reader)))


@dataclass
class HubSummary:
    address: int = 0
    name: str = ""
    value: int = 0
    modules: list = field(default_factory=list)

    def encode(self):
        return u32(self.address) + text(self.name) + u32(self.value) + listed(self.modules, ModuleSummary.encode)

    @staticmethod
    def read(reader):
        return HubSummary(reader.u32(), reader.text(), reader.u32(),
                          reader.all_of(lambda: ModuleSummary.read(reader)))


@dataclass
class NetworkDomain:
    address: int = 0
    hubs: list = field(default_factory=list)
    children: list = field(default_factory=list)

    def encode(self):
        return (u32(self.address) + listed(self.hubs, HubSummary.encode)
                + listed(self.children, NetworkDomain.encode))

    @staticmethod
    def read(reader):
        return NetworkDomain(reader.u32(), reader.all_of(lambda: HubSummary.read(reader)),
                             reader.all_of(lambda: NetworkDomain.read(reader)))

    @staticmethod
    def decode(payload):
        return NetworkDomain.read(Reader(payload))


@dataclass
class DiscoverNetworkRequest:
    max_depth: int = 0
    visited: list = field(default_factory=list)

    def encode(self):
        return u16(self.max_depth) + listed(self.visited, u32)

    @staticmethod
    def decode(payload):
        reader = Reader(payload)
        return DiscoverNetworkRequest(reader.u16(), reader.all_of(reader.u32))


@dataclass
class Envelope:
    fields: dict = field(default_factory=dict)
    data: bytes = b""

    def encode(self):
        fields = sorted((to_bytes(key), to_bytes(value)) for key, value in self.fields.items())
        return (u32(len(fields)) + b"".join(u32(len(part)) + part for entry in fields for part in entry)
                + u32(len(self.data)) + self.data)

    @staticmethod
    def decode(payload):
        reader = Reader(payload)
        envelope = Envelope()
        count = reader.u32()
        if count > reader.left() // 8:
            raise WireError("an envelope of more fields than it has room for")
        for _ in range(count):
            key, value = to_text(reader.take(reader.u32())), to_text(reader.take(reader.u32()))
            envelope.fields.setdefault(key, value)
        envelope.data = reader.take(reader.u32())
        return envelope
