"""Items saved to files, whole or not at all."""

import concurrent.futures
import os
import resource

import pytest

import zks


def test_a_file_that_cannot_be_made_is_named_and_the_item_stays(session, tmp_path):
    (item,) = session.echo(b"x")
    (tmp_path / "file").write_text("old")
    for place, told in (
        (tmp_path / "none" / "x", "No such file or directory"), (tmp_path, "it is a directory"), ("", "it names no file"),
        (tmp_path / "file" / "x", "directory"),
    ):  # fmt: skip
        with pytest.raises(zks.Error, match=told) as caught:
            item.save(place)
        assert caught.value.identifier.startswith("parallel:toolbox:CannotWrite")
    assert item.bytes() == b"x"


def test_a_file_is_replaced_by_a_whole_one_only(session, tmp_path):
    place = tmp_path / os.fsdecode(b"caf\xe9")
    place.write_text("old")
    sent = tmp_path / "sent"
    sent.write_bytes(b"x" * 200_000)
    unlimited = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, unlimited[1]))
    try:
        with pytest.raises(zks.Error, match="File too large") as caught:
            session.echo(sent)[0].save(place)
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, unlimited)
    assert caught.value.identifier == "parallel:toolbox:CannotWriteFile"
    assert place.read_text() == "old"
    session.echo(sent)[0].save(place)
    assert place.read_bytes() == sent.read_bytes()
    assert set(tmp_path.iterdir()) == {place, sent}


def test_what_is_no_file_is_written_to_and_stays(session, tmp_path):
    os.mkfifo(tmp_path / "pipe")
    (tmp_path / "sent").write_bytes(b"content")
    with concurrent.futures.ThreadPoolExecutor(1) as reader:
        read = reader.submit((tmp_path / "pipe").read_bytes)
        session.echo(tmp_path / "sent")[0].save(tmp_path / "pipe")
        assert read.result(60) == b"content"
    assert (tmp_path / "pipe").is_fifo()


def test_a_path_with_a_nul_is_refused_and_names_no_other_file(session, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    (item,) = session.echo(b"x")
    for use in (item.save, lambda path: session.echo(zks.file(path)), lambda path: session.run(["true"], [path])):
        with pytest.raises(ValueError, match="embedded null byte"):
            use("a\0b")
    assert list(tmp_path.iterdir()) == []
    assert item.bytes() == b"x"


def test_a_file_that_the_host_cannot_name_is_refused(session, tmp_path):
    path = tmp_path / os.fsdecode(b"caf\xe9")
    path.write_text("x")
    with pytest.raises(zks.Error, match="its name is not UTF-8"):
        session.echo(path)
