"""Bus frames and their fragments, read and written with nothing of the program; bus_payloads has what
is in them. All numbers are little-endian but a frame's CRC.
"""
import dataclasses
import struct
import zlib
from dataclasses import dataclass

SUBSCRIBE_REQUEST, SUBSCRIBE_RESPONSE, UNSUBSCRIBE_REQUEST = 0x10, 0x11, 0x12
DISCOVERY_REQUEST, DISCOVERY_RESPONSE = 0x20, 0x21
EVENT, REQUEST, RESPONSE = 0x30, 0x40, 0x41
TYPES = (SUBSCRIBE_REQUEST, SUBSCRIBE_RESPONSE, UNSUBSCRIBE_REQUEST, DISCOVERY_REQUEST, DISCOVERY_RESPONSE,
         EVENT, REQUEST, RESPONSE)

PREFIX = bytes.fromhex("B055B055")
BROADCAST = 0xFFFFFFFF
UNADDRESSED = 0xFFFF
VERSION = 2
DEFAULT_TTL = 8
MAX_FRAME = 4096
MAX_CHUNK = 4014
MAX_MESSAGE = 0x100000
COMPRESS_ABOVE = 1024

FRAGMENT, LAST, COMPRESSED = 1, 2, 4
TOPIC_ID, MSG_ID, FRAG_INDEX, FRAG_FLAGS, ORIGIN, TTL, UNCOMPRESSED_SIZE = (1 << slot for slot in range(7))

SLOT_SIZES = (2, 4, 2, 1, 6, 1, 4)


class WireError(ValueError):
    """What was read is not what it should be."""


class Reader:
    """Takes numbers off a frame or a payload, or raises a WireError where it ends."""

    def __init__(self, data, cursor=0):
        self.data = bytes(data)
        self.cursor = cursor

    def left(self):
        return len(self.data) - self.cursor

    def take(self, count):
        if count > self.left():
            raise WireError("cut short")
        self.cursor += count
        return self.data[self.cursor - count:self.cursor]

    def number(self, size):
        return int.from_bytes(self.take(size), "little")

    def u8(self):
        return self.number(1)

    def u16(self):
        return self.number(2)

    def u32(self):
        return self.number(4)


def crc(data):
    """The low half of a CRC-32."""
    return zlib.crc32(data) & 0xFFFF


@dataclass
class Frame:
    """One datagram; an option that is absent on the wire has its default here."""
    type: int
    source: int = 0
    dest: int = BROADCAST
    data: bytes = b""
    msg_id: int = 0
    topic_id: int = 0
    frag_index: int = 0
    frag_flags: int = 0
    origin: tuple | None = None  # the hub's address, the local address
    ttl: int = DEFAULT_TTL
    uncompressed_size: int = 0
    channel: int = 0
    version: int = VERSION

    def options(self):
        """The option field: a mask, and the slots that are present."""
        in_pieces = self.frag_index != 0 or self.frag_flags != 0
        slots = [
            (TOPIC_ID, self.topic_id != 0, "<H", (self.topic_id,)),
            (MSG_ID, self.type in (EVENT, REQUEST, RESPONSE), "<I", (self.msg_id,)),
            (FRAG_INDEX, in_pieces, "<H", (self.frag_index,)),
            (FRAG_FLAGS, in_pieces, "<B", (self.frag_flags,)),
            (ORIGIN, self.origin is not None, "<IH", self.origin),
            (TTL, self.ttl != DEFAULT_TTL, "<B", (self.ttl,)),
            (UNCOMPRESSED_SIZE, self.frag_flags & COMPRESSED, "<I", (self.uncompressed_size,)),
        ]
        present = [(bit, layout, values) for bit, there, layout, values in slots if there]
        return (struct.pack("<H", sum(bit for bit, _, _ in present))
                + b"".join(struct.pack(layout, *values) for _, layout, values in present))

    def encode(self):
        """The datagram."""
        head = (struct.pack("<BBHH", self.version, self.type, self.channel, self.source & 0xFFFF)
                + self.options() + struct.pack("<I", self.dest))
        checked = head + struct.pack("<H", len(head) + len(self.data)) + self.data
        return PREFIX + checked + struct.pack(">H", crc(checked))

    def read_options(self, reader):
        mask = reader.u16()
        if mask & TOPIC_ID:
            self.topic_id = reader.u16()
        if mask & MSG_ID:
            self.msg_id = reader.u32()
        if mask & FRAG_INDEX:
            self.frag_index = reader.u16()
        if mask & FRAG_FLAGS:
            self.frag_flags = reader.u8()
        if mask & ORIGIN:
            self.origin = reader.u32(), reader.u16()
        if mask & TTL:
            self.ttl = reader.u8()
        if mask & UNCOMPRESSED_SIZE:
            self.uncompressed_size = reader.u32()

    @staticmethod
    def decode(datagram):
        """A WireError unless it is one whole frame and nothing else."""
        reader = Reader(datagram)
        if reader.take(4) != PREFIX:
            raise WireError("not the prefix of a frame")
        frame = Frame(version=reader.u8(), type=reader.u8())
        if frame.type not in TYPES:
            raise WireError(f"frame of an unknown type {frame.type:#x}")
        frame.channel, frame.source = reader.u16(), reader.u16()
        frame.read_options(reader)
        frame.dest = reader.u32()
        before_data = reader.cursor - 4
        length = reader.u16()
        if length < before_data:
            raise WireError("a frame's length that leaves out its own fields")
        frame.data = reader.take(length - before_data)
        if frame.type == DISCOVERY_REQUEST and frame.data:
            raise WireError("a discovery request with data")
        expected = crc(datagram[4:reader.cursor])
        if struct.unpack(">H", reader.take(2))[0] != expected:
            raise WireError("a frame with a wrong CRC")
        if reader.left():
            raise WireError("bytes behind a frame")
        return frame


def frame_size(stream):
    """Of the frame that a stream of bytes begins with; 0 as long as that cannot be told."""
    reader = Reader(stream, 10)
    try:
        mask = reader.u16()
        reader.take(sum(size for slot, size in enumerate(SLOT_SIZES) if mask & 1 << slot) + 4)
        return len(PREFIX) + reader.u16() + 4
    except WireError:
        return 0


def frames_of(message, compress=False):
    """The frames that carry a message, itself a Frame with all of the payload."""
    if len(message.data) > MAX_MESSAGE:
        return []
    data, flags, size = message.data, 0, 0
    if compress and len(data) > COMPRESS_ABOVE and len(packed := zlib.compress(data)) < len(data):
        data, flags, size = packed, COMPRESSED, len(data)
    if len(data) <= MAX_CHUNK:
        return [dataclasses.replace(message, data=data, frag_flags=flags, uncompressed_size=size)]
    chunks = [data[i:i + MAX_CHUNK] for i in range(0, len(data), MAX_CHUNK)]
    return [dataclasses.replace(message, data=chunk, frag_index=i, uncompressed_size=size,
                                frag_flags=flags | FRAGMENT | (LAST if i == len(chunks) - 1 else 0))
            for i, chunk in enumerate(chunks)]


class Reassembler:
    """Makes messages of frames."""

    def __init__(self):
        self.assemblies = {}

    def add(self, frame):
        """The message that this frame completes, as a Frame with all of the payload, or None."""
        if not frame.frag_flags & FRAGMENT:
            return unpacked(frame)
        key = frame.source, frame.msg_id
        first, chunks, last = self.assemblies.setdefault(key, (frame, {}, []))
        chunks[frame.frag_index] = frame.data
        if frame.frag_flags & LAST:
            last[:] = [frame.frag_index]
        if not last or sorted(chunks) != list(range(last[0] + 1)):
            return None
        del self.assemblies[key]
        return unpacked(dataclasses.replace(first, data=b"".join(chunks[i] for i in sorted(chunks)), frag_index=0))


def unpacked(message):
    """The message with its plain payload, and nothing left of how it travelled."""
    data = message.data
    if message.frag_flags & COMPRESSED:
        if not 1 <= message.uncompressed_size <= MAX_MESSAGE:
            raise WireError("a compressed message of no size")
        try:
            data = zlib.decompress(data)
        except zlib.error as error:
            raise WireError("a compressed message that is none") from error
        if len(data) != message.uncompressed_size:
            raise WireError("a compressed message of another size")
    return dataclasses.replace(message, data=data, frag_flags=0, uncompressed_size=0)
