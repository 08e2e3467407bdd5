"""Commands run on the service: what goes along, what comes back, how it ended."""

import os
import pickle
import signal
import subprocess

import pytest

import zks


USES_DAEMON = True


def test_run_takes_files_there_and_brings_outputs_back(any_session, tmp_path):
    (tmp_path / "in.txt").write_text("hello\n")
    result = any_session.run(
        ["sh", "-c", 'tr a-z A-Z <in.txt >out.txt; echo "$GREETING"; echo err >&2'],
        files=[tmp_path / "in.txt"], outputs=["out.txt"], environment={"GREETING": "hi"},
    )  # fmt: skip
    assert result.ok
    assert (result.outcome, result.exit_status, result.signal) == ("exited", 0, None)
    assert (result.stdout, result.stderr) == (b"hi\n", b"err\n")
    result.outputs["out.txt"].save(tmp_path / "out.txt")
    assert (tmp_path / "out.txt").read_text() == "HELLO\n"
    assert result.wall_time > 0
    assert result.peak_memory_bytes >= 0  # it is 0 of a task that ended too soon to be measured


def test_run_says_how_a_task_ended(session, tmp_path):
    missing = session.run(["false"], outputs=["never"])
    assert (missing.outcome, missing.exit_status, missing.missing_outputs, dict(missing.outputs)) == (
        "exited", 1, ("never",), {},
    )  # fmt: skip
    assert not missing.ok
    killed = session.run(["sh", "-c", "kill -9 $$"])
    assert (killed.outcome, killed.signal) == ("signalled", signal.SIGKILL)
    assert session.run(["sleep", "1000"], timeout=0.05).outcome == "timed_out"
    nowhere = session.run(["/no/such/program"])
    assert nowhere.outcome == "not_started"
    assert nowhere.message
    (tmp_path / "data").write_text("x")
    renamed = session.run(["cat", "other"], files={"other": tmp_path / "data"})
    assert renamed.stdout == b"x"
    with pytest.raises(TypeError, match="argv is a sequence"):
        session.run("echo")
    with pytest.raises(ValueError, match="two files"):
        session.run(["true"], files=["/a/data", "/b/data"])


def test_run_feeds_the_standard_input(any_session, tmp_path):
    (tmp_path / "words").write_bytes(b"b\na\n")
    for stdin in (b"b\na\n", "b\na\n", bytearray(b"b\na\n"), memoryview(b"b\na\n"), tmp_path / "words"):
        assert any_session.run(["sort"], stdin=stdin, files=[tmp_path / "words"]).stdout == b"a\nb\n"
    assert any_session.run(["cat"], stdin=b"").stdout == any_session.run(["cat"]).stdout == b""
    with pytest.raises(TypeError, match="stdin is bytes"):
        any_session.run(["cat"], stdin=["a"])


def test_run_gives_text_where_it_is_wanted(session):
    task = session.run(["sh", "-c", "printf 'ä\\377'; echo err >&2"], text=True)
    assert (task.stdout, task.stderr) == ("ä\ufffd", "err\n")


def test_run_saves_outputs_in_a_directory(any_session, tmp_path):
    task = any_session.run(["sh", "-c", "echo a >a; echo b >b"], outputs=["a", "b", "c"], to=tmp_path)
    assert {path.name: path.read_text() for path in tmp_path.iterdir()} == {"a": "a\n", "b": "b\n"}
    assert task.missing_outputs == ("c",)
    assert repr(task.outputs["a"]).endswith(": saved>")
    with pytest.raises(ValueError, match="to is a directory, and .*nowhere' is none"):
        any_session.run(["true"], to=tmp_path / "nowhere")


def test_programs_that_a_task_makes_can_be_run(any_session, tmp_path):
    task = any_session.run(
        ["sh", "-c", "printf '#!/bin/sh\\necho ran\\n' >prog; echo x >data; chmod +x prog"], outputs=["data", "prog"], to=tmp_path
    )
    assert task.executable_outputs == ("prog",)
    assert not os.access(tmp_path / "data", os.X_OK)
    assert subprocess.run([tmp_path / "prog"], capture_output=True).stdout == b"ran\n"


def test_folders_go_there_and_come_back(any_session, tmp_path):
    (tmp_path / "in" / "sub" / "empty").mkdir(parents=True)
    (tmp_path / "in" / "sub" / "tool").write_text("#!/bin/sh\nmkdir made; cp -r in made\n")
    (tmp_path / "in" / "sub" / "tool").chmod(0o755)
    (tmp_path / "in" / "data").write_text("x")
    task = any_session.run(["in/sub/tool"], files=[f"{tmp_path}/in/"], outputs=["made"])
    assert task.ok, task.stderr
    assert task.output_folders == ("made", "made/in", "made/in/sub", "made/in/sub/empty")
    assert list(task.outputs) == ["made/in/data", "made/in/sub/tool"]
    task.outputs["made/in/sub/tool"].save(tmp_path / "tool")
    assert os.access(tmp_path / "tool", os.X_OK)
    (tmp_path / "made").mkdir()
    (tmp_path / "made" / "kept").write_text("kept")
    any_session.run(["in/sub/tool"], files={"in": tmp_path / "in"}, outputs=["made"], to=tmp_path, check=True)
    found = {str(path.relative_to(tmp_path / "made")) for path in (tmp_path / "made").rglob("*")}
    assert found == {"kept", "in", "in/data", "in/sub", "in/sub/tool", "in/sub/empty"}
    assert not os.access(tmp_path / "made" / "in" / "data", os.X_OK)


def test_a_folder_that_cannot_be_sent_is_named(session, tmp_path):
    (tmp_path / "link").symlink_to("/")
    with pytest.raises(zks.Error, match="link.* cannot be sent: it is a link to a folder"):
        session.run(["true"], files={"d": tmp_path})


def test_a_task_is_true_when_all_went_well(session):
    assert session.run(["true"])
    assert not session.run(["false"])
    assert not session.run(["true"], outputs=["never"])


@pytest.mark.parametrize(
    "options, told",
    [
        ({"argv": ["sh", "-c", "echo first >&2; echo last >&2; exit 3"]}, "The task 'sh' exited with status 3: last"),
        ({"argv": ["sh", "-c", "kill -9 $$"]}, "The task 'sh' was ended by SIGKILL"),
        ({"argv": ["sleep", "1000"], "timeout": 0.05}, "The task 'sleep' was ended when its time was over"),
        ({"argv": ["/no/such"], "text": True}, "The task '/no/such' could not be started: "),
        ({"argv": ["true"], "outputs": ["a", "b"]}, "The task 'true' did not make 'a', 'b'"),
        ({"argv": ["ln", "-s", "/", "a"], "outputs": ["a"]}, "The task 'ln' left 'a', which cannot be brought back: it is a "),
    ],
)
def test_check_raises_when_a_task_does_not_go_well(session, options, told):
    with pytest.raises(zks.TaskFailed) as caught:
        session.run(check=True, **options)
    assert str(caught.value).startswith(told)
    assert isinstance(caught.value, zks.Error)
    assert not caught.value.task
    twin = pickle.loads(pickle.dumps(caught.value))
    assert (str(twin), twin.task.outcome) == (str(caught.value), caught.value.task.outcome)
    assert session.run(["true"], check=True)


def test_results_can_be_pickled_and_unsaved_outputs_stay_behind(session, tmp_path):
    task = session.run(["sh", "-c", "echo x >out; echo said"], outputs=["out"])
    twin = pickle.loads(pickle.dumps(task))
    assert (twin.stdout, twin.ok, twin.wall_time) == (b"said\n", True, task.wall_time)
    assert repr(twin.outputs["out"]) == repr(task.outputs["out"])
    with pytest.raises(zks.Error, match="stayed in the process"):
        twin.outputs["out"].save(tmp_path / "out")
    with pytest.raises(zks.Error, match="stayed in the process"):
        twin.outputs["out"].bytes_async().result(60)
    task.outputs["out"].save(tmp_path / "out")
    assert (tmp_path / "out").read_text() == "x\n"
    message = session.echo(zks.message("parallel.zksmessages.TaskLimits", open_files=3))[0].message()
    assert pickle.loads(pickle.dumps(message)) == message


def test_outputs_that_cannot_be_brought_back_are_told(session):
    task = session.run(["sh", "-c", "ln -s / link; mkdir d; ln -s / d/inside; echo x >d/x"], outputs=["link", "none", "d"])
    assert task.missing_outputs == ("link", "none", "d/inside")
    told = "it is a symbolic link, and only regular files can be returned"
    assert dict(task.unusable_outputs) == {"link": told, "d/inside": told}
    assert task.outputs["d/x"].bytes() == b"x\n"


def test_files_that_are_known_to_be_such_can_be_read_as_bytes(any_session, tmp_path):
    content = os.urandom(200_000)
    (tmp_path / "sent").write_bytes(content)
    first, file, last = any_session.echo(b"first", tmp_path / "sent", zks.file(tmp_path / "sent"))
    assert last.bytes() == content, "read before its turn"
    assert file.bytes() == content
    assert first.bytes() == b"first"
    task = any_session.run(["cp", "sent", "made"], files=[tmp_path / "sent"], outputs=["made", "sent"])
    assert task.outputs["sent"].bytes() == content
    assert task.outputs["made"].bytes_async().result(60) == content


def test_plain_bytes_of_border_sizes_come_back(any_session):
    for nbytes in (0, 1, 32758, 32759, 32760, 32767, 70_000, 3_000_000):
        sent = os.urandom(nbytes)
        early, late = any_session.echo(sent, sent)
        assert late.bytes() == sent
        assert early.bytes() == sent


def test_some_outputs_missing_leaves_the_others_readable(session, tmp_path):
    result = session.run(["sh", "-c", "echo b >b"], outputs=["a", "b", "c"])
    assert result.missing_outputs == ("a", "c")
    result.outputs["b"].save(tmp_path / "b")
    assert (tmp_path / "b").read_text() == "b\n"
