"""A zksd in a process of its own, under limits of its own, and what it holds while it is attacked."""

import contextlib

import os
import pathlib
import resource
import ssl
import subprocess
import threading
import time

import grpc
import transport_pb2_grpc
import zksmessages_pb2 as messages
from foreign_wire import Conversation, container, echo_request, framed, items_of, plain_of

MIB = 1 << 20
# Until a client is served again. Far more than it takes, since machines that run tests are busy.
PATIENCE = 60


class Daemon:
    """`kind`: "unix", "tcp" without, or "tls" with credentials. `descriptors`: its soft and its hard limit; `memory`:
    what it may map at most, in bytes."""

    def __init__(self, directory, *options, kind="unix", descriptors=None, memory=None):
        self._tls = directory / "tls" if kind == "tls" else None
        listen = {
            "unix": ("--socket", str(directory / "socket")),
            "tcp": ("--listen", "127.0.0.1:0", "--insecure"),
            "tls": ("--listen", "127.0.0.1:0", "--tls", str(self._tls)),
        }[kind]

        def limit():
            if descriptors is not None:
                resource.setrlimit(resource.RLIMIT_NOFILE, descriptors)
            if memory is not None:
                resource.setrlimit(resource.RLIMIT_AS, (memory, memory))

        self._process = subprocess.Popen(
            [os.environ["ZKSD"], *listen, "--scratch", str(directory), *options],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            preexec_fn=limit,
        )
        line = self._process.stdout.readline()
        assert line.startswith("zksd: listening on "), line + self._process.stderr.read()
        self.address = line.removeprefix("zksd: listening on ").rstrip("\n")
        self._log = []
        self._logged = threading.Condition()
        self._reader = threading.Thread(target=self._read_log, daemon=True)
        self._reader.start()
        self._base = self.peak()

    def _read_log(self):
        for line in self._process.stderr:
            with self._logged:
                self._log.append(line.rstrip("\n"))
                self._logged.notify_all()

    @property
    def pid(self):
        return self._process.pid

    def is_alive(self):
        return self._process.poll() is None

    def log(self):
        with self._logged:
            return list(self._log)

    def await_log(self, text):
        """The first line of the log that holds the text."""
        with self._logged:
            found = lambda: next((line for line in self._log if text in line), None)  # noqa: E731
            assert self._logged.wait_for(found, PATIENCE), f"no line with {text!r} in {self._log}"
            return found()

    def _status(self, name):
        for line in pathlib.Path(f"/proc/{self.pid}/status").read_text().splitlines():
            if line.startswith(name + ":"):
                return int(line.split()[1])
        raise KeyError(name)

    def peak(self):
        """The most memory that it has had, in bytes."""
        return self._status("VmHWM") << 10

    def growth(self):
        """How far the most memory since the start, or since `forget_peak`, is above that of then."""
        return self.peak() - self._base

    def forget_peak(self):
        pathlib.Path(f"/proc/{self.pid}/clear_refs").write_text("5")
        self._base = self.peak()

    def threads(self):
        return self._status("Threads")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def _file(self, name):
        return (self._tls / name).read_bytes()

    def channel(self, *options, token=True):
        """A good client's, with a connection of its own."""
        options = [("grpc.use_local_subchannel_pool", 1), *options]
        if self._tls is None:
            return grpc.insecure_channel(self.address, options)
        credentials = grpc.ssl_channel_credentials(
            self._file("ca.pem"), private_key=self._file("client-key.pem"), certificate_chain=self._file("client.pem")
        )
        if token:
            text = self._file("token").decode().strip()
            credentials = grpc.composite_channel_credentials(credentials, grpc.access_token_call_credentials(text))
        return grpc.secure_channel(self.address, credentials, options)

    def guarded(self, connection, certificate=True):
        """A connected socket after the handshake of TLS."""
        context = ssl.create_default_context(cafile=self._tls / "ca.pem")
        context.check_hostname = False
        context.set_alpn_protocols(["h2"])
        if certificate:
            context.load_cert_chain(self._tls / "client.pem", self._tls / "client-key.pem")
        return context.wrap_socket(connection)

    @contextlib.contextmanager
    def conversation(self, *options):
        with self.channel(*options) as channel:
            opened = Conversation(transport_pb2_grpc.TransportStub(channel))
            try:
                yield opened
            finally:
                opened.half_close()
                opened.stream.cancel()

    def serves(self, content=b"good"):
        """A client that asks for nothing odd gets what it sent."""
        with self.conversation() as conversation:
            return content in conversation.call("echo", echo_request((messages.ITEM_KIND_FILE, content)))

    def run(self, script):
        """What a task of the shell writes."""
        task = messages.TaskDescription(argv=["sh", "-c", script])
        with self.conversation() as conversation:
            reply = conversation.call("runTask", container(framed(task.SerializeToString())))
        return plain_of(items_of(reply)[1])

    def awaits(self, condition):
        """Waits for something to be so, without an event to wait for."""
        end = time.monotonic() + PATIENCE
        while not condition():
            assert time.monotonic() < end, "it never was so"
            time.sleep(0.02)

    def stop(self):
        self._process.terminate()
        try:
            return self._process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
            raise
        finally:
            self._reader.join()
            self._process.stdout.close()
            self._process.stderr.close()
