"""The example program runs as it stands."""

import os
import pathlib
import subprocess
import sys

EXAMPLE = pathlib.Path(__file__).resolve().parents[2] / "examples" / "session.py"


def test_the_example_session_prints_what_it_should(tmp_path):
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(path for path in sys.path if path)}
    done = subprocess.run(
        [sys.executable, "-W", "error", EXAMPLE], cwd=tmp_path, env=environment, capture_output=True, text=True, timeout=60
    )
    lines = len(EXAMPLE.read_text().splitlines())
    assert (done.stdout, done.stderr) == (f"[0.   0.25 0.5  0.75 1.  ]\n{lines} session.py\n", "")
    assert (tmp_path / "session-copy.py").read_bytes() == EXAMPLE.read_bytes()
