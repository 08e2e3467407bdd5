"""Connections over TCP: credentials, and the explicit word for none."""

import pathlib
import shutil
import subprocess
import os

import numpy
import pytest

import zks
from conftest import stop_daemon


def start_tcp_daemon(*options):
    process = subprocess.Popen(
        [os.environ["ZKSD"], "--listen", "127.0.0.1:0", "--log", "off", *map(str, options)],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        text=True,
    )
    line = process.stdout.readline()
    if "listening on " not in line:
        stop_daemon(process)
        raise RuntimeError("zksd did not start")
    return process, line.split()[-1]


# Before the check for leaks, so that the daemons are there when it begins.
USES_DAEMON = True


@pytest.fixture(scope="module")
def daemon(guarded, plain):
    return guarded, plain


@pytest.fixture(scope="module")
def guarded(tmp_path_factory):
    """The address of a service with credentials, and their directory."""
    directory = tmp_path_factory.mktemp("guarded") / "tls"
    process, address = start_tcp_daemon("--tls", directory)
    yield address, directory
    stop_daemon(process)


@pytest.fixture(scope="module")
def plain():
    """The address of a service that speaks plain text."""
    process, address = start_tcp_daemon("--insecure")
    yield address
    stop_daemon(process)


def client_directory(guarded, tmp_path, **changed):
    """A client's own copy of its files, some of them changed; None leaves one out."""
    directory = tmp_path / "client"
    directory.mkdir(mode=0o700)
    for name in ("ca.pem", "client.pem", "client-key.pem", "token"):
        shutil.copy(guarded[1] / name, directory / name)
    for name, content in changed.items():
        path = directory / name.replace("_", "-")
        path.unlink() if content is None else path.write_text(content)
    return directory


def test_directory_of_the_client_lets_it_in(guarded, tmp_path):
    with zks.connect(guarded[0], tls=client_directory(guarded, tmp_path)) as session:
        (item,) = session.echo(numpy.arange(3.0))
        assert item.array().tolist() == [0, 1, 2]


def test_default_directory_is_used_when_none_is_named(guarded, monkeypatch):
    monkeypatch.setenv("ZKS_TLS", str(guarded[1]))
    with zks.connect(guarded[0]) as session:
        assert session.echo(b"x")[0].bytes() == b"x"


def test_tcp_without_credentials_says_what_to_do(guarded, tmp_path, monkeypatch):
    monkeypatch.setenv("ZKS_TLS", str(tmp_path / "none"))
    with pytest.raises(zks.Error, match=r"tls=DIR.*insecure=True") as caught:
        zks.connect(guarded[0])
    assert caught.value.identifier == "parallel:toolbox:NoCredentials"
    assert "--" not in str(caught.value)


def test_wrong_token_is_refused_without_being_shown(guarded, tmp_path):
    directory = client_directory(guarded, tmp_path, token="guessed")
    with pytest.raises(zks.FrameworkError, match="the token is not the service's; get the file token") as caught:
        zks.connect(guarded[0], tls=directory)
    assert "guessed" not in str(caught.value)


def test_missing_file_is_named(guarded, tmp_path):
    directory = client_directory(guarded, tmp_path, token=None)
    with pytest.raises(zks.FrameworkError, match=r"There is no file .*token"):
        zks.connect(guarded[0], tls=str(directory))


def test_directory_open_to_others_is_refused(guarded, tmp_path):
    directory = client_directory(guarded, tmp_path)
    directory.chmod(0o750)
    with pytest.raises(zks.FrameworkError, match="run chmod 700 "):
        zks.connect(guarded[0], tls=directory)


def test_plain_text_needs_the_word_at_both_ends(guarded, plain, tmp_path):
    with zks.connect(plain, insecure=True) as session:
        assert session.echo(b"x")[0].bytes() == b"x"
    with pytest.raises(zks.FrameworkError, match=r"the service speaks TLS; .* credentials \(tls=DIR\)") as speaks:
        zks.connect(guarded[0], insecure=True)
    with pytest.raises(zks.FrameworkError, match=r"does not speak TLS; .* plain text \(insecure=True\)") as does_not:
        zks.connect(plain, tls=client_directory(guarded, tmp_path))
    for caught in (speaks, does_not):
        assert "--" not in str(caught.value), "options of the command line are not for this user"


def test_words_that_contradict_each_other_are_refused(tmp_path):
    for arguments in ({"tls": tmp_path}, {"insecure": True}, {"max_reply": 1}):
        with pytest.raises(ValueError, match="there is none"):
            zks.connect(**arguments)
    with pytest.raises(ValueError, match="exclude each other"):
        zks.connect("localhost:1", tls=tmp_path, insecure=True)


def test_secrets_are_never_logged(guarded, tmp_path, caplog):
    token = pathlib.Path(guarded[1], "token").read_text().strip()
    caplog.set_level(1, logger="zks")
    with zks.connect(guarded[0], tls=guarded[1]) as session:
        session.echo(b"x")[0].bytes()
    with pytest.raises(zks.FrameworkError):
        zks.connect(guarded[0], tls=client_directory(guarded, tmp_path, token="guessed"))
    assert caplog.text
    for secret in (token, "guessed", "PRIVATE KEY"):
        assert secret not in caplog.text
