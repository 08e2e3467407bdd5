"""HTTP/2 by hand (RFC 9113), for peers that keep to none of its rules."""

import socket
import struct
import threading

DATA, HEADERS, RST_STREAM, SETTINGS, PING, GOAWAY, WINDOW_UPDATE, CONTINUATION = 0, 1, 3, 4, 6, 7, 8, 9
END_STREAM, ACK, END_HEADERS = 1, 1, 4
PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
CONVERSE = "/agent.spf.v1.Transport/Converse"
PATIENCE = 60
# How long a service that takes no more is waited for. A busy machine makes a test see less by it, and fail never.
STALL = 3


def frame(kind, flags, stream, payload=b""):
    return struct.pack(">I", len(payload))[1:] + bytes([kind, flags]) + struct.pack(">I", stream) + payload


def integer(value, prefix_bits, first=0):
    """RFC 7541, 5.1."""
    limit = (1 << prefix_bits) - 1
    if value < limit:
        return bytes([first | value])
    out = bytearray([first | limit])
    value -= limit
    while value >= 128:
        out.append(value % 128 | 128)
        value //= 128
    out.append(value)
    return bytes(out)


def header(name, value):
    """A literal that goes into no table (RFC 7541, 6.2.2)."""
    name, value = name.encode(), value.encode() if isinstance(value, str) else value
    return b"\0" + integer(len(name), 7) + name + integer(len(value), 7) + value


def request_headers(path=CONVERSE):
    return b"".join(
        header(*pair)
        for pair in [
            (":method", "POST"),
            (":scheme", "http"),
            (":path", path),
            (":authority", "localhost"),
            ("te", "trailers"),
            ("content-type", "application/grpc"),
        ]
    )


def reply_headers():
    return header(":status", "200") + header("content-type", "application/grpc")


def connect_to(address, source=None):
    """`source`: the address of this end, for TCP."""
    if address.startswith("unix:"):
        connection = socket.socket(socket.AF_UNIX)
        connection.connect(address.removeprefix("unix:"))
        return connection
    host, port = address.rsplit(":", 1)
    return socket.create_connection((host.strip("[]"), int(port)), source_address=source and (source, 0))


class Peer:
    """One connection, by default as its client. A thread of its own takes what comes, and keeps the sums of the windows."""

    def __init__(self, address, acknowledge=True, mute=False, connection=None, is_service=False):
        self._socket = connection or connect_to(address)
        self._acknowledge = acknowledge
        self._is_service = is_service
        self._changed = threading.Condition()
        self._window = 65535
        self._stream_windows = {}
        self._initial = 65535
        self._reset = set()
        self._rest = b""
        self.frames = []  # kind, flags and stream of what came, the first 10,000
        self.received = 0  # bytes of data
        self.reason = b""  # of the service, for ending the connection
        self.ended = False
        self.data = {}  # of a service: what has come, by stream
        self.send((b"" if is_service else PREFACE) + frame(SETTINGS, 0, 0))
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        with self._changed:
            greeted = lambda: self.ended or any(kind == SETTINGS and flags & ACK for kind, flags, _ in self.frames)  # noqa: E731
            assert self._changed.wait_for(greeted, PATIENCE)
        if mute:
            self._acknowledge = False

    def send(self, data):
        """False once the service has ended the connection."""
        try:
            self._socket.sendall(data)
            return True
        except OSError:
            return False

    def open(self, stream, path=CONVERSE):
        return self.send(frame(HEADERS, END_HEADERS, stream, request_headers(path)))

    def send_data(self, stream, data):
        """Within the windows that the service gives. False once it has ended the stream or the connection."""
        return self._send_within(stream, data, PATIENCE) == len(data)

    def send_until_stalled(self, stream, pieces):
        """Of an iterable of bytes, until the service gives no more room. How many were sent. What is left of the piece
        in hand goes first next time."""
        total = 0
        for piece in pieces:
            piece = self._rest + piece
            nbytes = self._send_within(stream, piece, STALL, may_stall=True)
            self._rest = piece[nbytes:]
            total += nbytes
            if self._rest:
                break
        return total

    def give_window(self, stream, nbytes):
        """Lets the service send so much more, on the stream and on the connection."""
        for of in (0, stream):
            self.send(frame(WINDOW_UPDATE, 0, of, struct.pack(">I", nbytes)))

    def _send_within(self, stream, data, patience, may_stall=False):
        """How many bytes were sent before the service ended the stream or the connection, or stalled it."""
        view = memoryview(data)
        while view:
            with self._changed:
                room = lambda: min(self._window, self._stream_windows.get(stream, 0) + self._initial)  # noqa: E731
                over = lambda: self.ended or stream in self._reset  # noqa: E731
                in_time = self._changed.wait_for(lambda: over() or room() > 0, patience)
                assert in_time or may_stall
                if over() or not in_time:
                    break
                nbytes = min(room(), 16384, len(view))
                self._window -= nbytes
                self._stream_windows[stream] = self._stream_windows.get(stream, 0) - nbytes
            if not self.send(frame(DATA, 0, stream, bytes(view[:nbytes]))):
                break
            view = view[nbytes:]
        return len(data) - len(view)

    def _exactly(self, nbytes):
        data = bytearray()
        while len(data) < nbytes:
            part = self._socket.recv(nbytes - len(data))
            if not part:
                raise OSError("ended")
            data += part
        return bytes(data)

    def _read(self):
        try:
            if self._is_service:
                self._exactly(len(PREFACE))
            while True:
                head = self._exactly(9)
                payload = self._exactly(int.from_bytes(head[:3], "big"))
                self._take(head[3], head[4], int.from_bytes(head[5:], "big") & 0x7FFFFFFF, payload)
        except OSError:
            pass
        with self._changed:
            self.ended = True
            self._changed.notify_all()

    def _take(self, kind, flags, stream, payload):
        with self._changed:
            if len(self.frames) < 10_000:
                self.frames.append((kind, flags, stream))
            if kind == WINDOW_UPDATE:
                more = int.from_bytes(payload, "big")
                if stream == 0:
                    self._window += more
                else:
                    self._stream_windows[stream] = self._stream_windows.get(stream, 0) + more
            if kind == DATA:
                self.received += len(payload)
                if self._is_service:
                    self.data[stream] = self.data.get(stream, b"") + payload
            if kind == RST_STREAM:
                self._reset.add(stream)
            if kind == GOAWAY:
                self.reason = payload[8:]
            if kind == SETTINGS and not flags & ACK:
                for at in range(0, len(payload), 6):
                    name, value = struct.unpack_from(">HI", payload, at)
                    if name == 4:
                        self._initial = value
            self._changed.notify_all()
        if kind == SETTINGS and not flags & ACK and self._acknowledge:
            self.send(frame(SETTINGS, ACK, 0))
        if kind == PING and not flags & ACK and self._acknowledge:
            self.send(frame(PING, ACK, 0, payload))

    def await_end(self):
        """Until the service has ended the connection."""
        with self._changed:
            assert self._changed.wait_for(lambda: self.ended, PATIENCE)

    def await_frame(self, stream):
        """Until the service has said something on the stream, or ended the connection."""
        with self._changed:
            assert self._changed.wait_for(lambda: self.ended or any(frame[2] == stream for frame in self.frames), PATIENCE)

    def await_change(self, find):
        """What `find` gives as soon as that is something."""
        with self._changed:
            assert self._changed.wait_for(lambda: self.ended or find() is not None, PATIENCE)
            return find()

    def await_data(self, nbytes):
        """Until so many bytes of data have come, of all streams."""
        with self._changed:
            assert self._changed.wait_for(lambda: self.received >= nbytes, PATIENCE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        try:
            self._socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._reader.join()
        self._socket.close()
