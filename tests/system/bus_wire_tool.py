"""The program's own encoders and decoders of bus records."""
import json
import subprocess

from programs import BIN

TOOL = BIN / "bus_wire_tool"


class BusWireTool:
    def __enter__(self):
        self.process = subprocess.Popen([TOOL], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        assert self.process.wait() == 0

    def ask(self, **question):
        self.process.stdin.write(json.dumps(question) + "\n")
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())

    def encode(self, record, value):
        return bytes.fromhex(self.ask(record=record, value=value))

    def decode(self, record, data):
        """None when it is refused."""
        return self.ask(record=record, hex=bytes(data).hex())
