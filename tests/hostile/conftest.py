import pytest
from daemon import Daemon


@pytest.fixture
def start(tmp_path):
    """Starts a daemon, as `Daemon`; it has to end cleanly after the test."""
    started = []

    def start_daemon(*options, **how):
        started.append(Daemon(tmp_path, *options, **how))
        return started[-1]

    yield start_daemon
    assert [daemon.stop() for daemon in started] == [0] * len(started)
