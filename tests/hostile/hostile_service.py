"""A service that keeps to no rules, by hand, and the client that it has: zks in a process of its own."""

import os
import pathlib
import socket
import struct
import subprocess
import threading
import time

import transport_pb2 as wire
from raw_http2 import DATA, END_HEADERS, HEADERS, PATIENCE, Peer, frame, reply_headers


def message(content):
    return struct.pack(">BI", 0, len(content)) + content


def messages_in(data):
    """Those that are whole."""
    at = 0
    while len(data) >= at + 5:
        nbytes = int.from_bytes(data[at + 1 : at + 5], "big")
        if len(data) < at + 5 + nbytes:
            return
        yield data[at + 5 : at + 5 + nbytes]
        at += 5 + nbytes


def reply_head(size=None):
    return wire.Frame(reply=wire.ReplyHead(protocol_version=1, size=size))


class Conversation:
    """With one client: waits for its call. `asks_for_life`: on a socket file `zks` first calls a method without a name."""

    def __init__(self, connection, asks_for_life):
        self.peer = Peer(None, connection=connection, is_service=True)
        greeted = None
        if asks_for_life:
            greeted = self._await_call("")
            self.begin(greeted)
            self.say(greeted, reply_head(0), wire.Frame(end=True))
        self.stream = self._await_call()
        if self.stream != greeted:
            self.begin(self.stream)

    def _await_call(self, method=None):
        """The stream of the first call; of that method, or of any that has a name."""

        def found():
            for stream, data in list(self.peer.data.items()):
                for content in messages_in(data):
                    head = wire.Frame.FromString(content)
                    if head.HasField("call") and (head.call.method == method if method is not None else head.call.method):
                        return stream
            return None

        return self.peer.await_change(found)

    def begin(self, stream, extra=b""):
        self.peer.send(frame(HEADERS, END_HEADERS, stream, reply_headers() + extra))

    def say(self, stream, *frames):
        """False once the client has ended the stream."""
        return all(self.peer.send_data(stream, message(each.SerializeToString())) for each in frames)


class Client:
    """`zks` with these arguments, connected to a service of ours. `kind`: "unix" or "tcp"."""

    def __init__(self, directory, *arguments, kind="unix"):
        path = str(directory / "hostile")
        with socket.socket(socket.AF_UNIX) if kind == "unix" else socket.create_server(("127.0.0.1", 0)) as listener:
            if kind == "unix":
                listener.bind(path)
                listener.listen()
                address = ["--address", "unix:" + path]
            else:
                address = ["--address", f"127.0.0.1:{listener.getsockname()[1]}", "--insecure"]
            listener.settimeout(PATIENCE)
            self._process = subprocess.Popen(
                [os.environ["ZKS"], *address, *arguments],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                cwd=directory,
                text=True,
            )
            connection, _ = listener.accept()
        pathlib.Path(path).unlink(missing_ok=True)
        connection.settimeout(None)
        self._said = []
        self._readers = [
            threading.Thread(target=lambda stream=stream: self._said.append(stream.read()), daemon=True)
            for stream in (self._process.stdout, self._process.stderr)
        ]
        for reader in self._readers:
            reader.start()
        self.conversation = Conversation(connection, asks_for_life=kind == "unix")

    def stop(self):
        """For the end of a test that may have failed."""
        if self._process.returncode is None:
            self._process.kill()
            self._process.wait()

    def end(self):
        """Waits for its end. Exit code, what it said, and the most memory that it had."""
        deadline = time.monotonic() + PATIENCE
        while True:
            pid, status, usage = os.wait4(self._process.pid, os.WNOHANG)
            if pid != 0:
                break
            if time.monotonic() > deadline:
                self._process.kill()
                raise AssertionError("zks does not end")
            time.sleep(0.02)
        self._process.returncode = os.waitstatus_to_exitcode(status)
        for reader in self._readers:
            reader.join()
        self.conversation.peer.close()
        self._process.stdout.close()
        self._process.stderr.close()
        return self._process.returncode, "".join(self._said), usage.ru_maxrss << 10
