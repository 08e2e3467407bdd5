"""The installed package works without the build tree."""

import os
import subprocess
import sys

import pytest


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    directory = tmp_path_factory.mktemp("prefix")
    subprocess.run(
        ["cmake", "--install", os.environ["ZKS_BUILD_DIR"], "--prefix", directory], check=True, capture_output=True
    )
    return directory


def test_the_installed_package_is_whole_and_finds_the_installed_libraries(prefix):
    code = """
import numpy, zks
with zks.connect() as session:
    print(session.echo(numpy.arange(3.0))[0].array())
print(zks.__file__)
print(*sorted({line.split()[-1] for line in open("/proc/self/maps") if "zksplatform" in line or "cvparallel" in line}))
"""
    packages = prefix / "lib" / "python3" / "dist-packages"
    done = subprocess.run(
        [sys.executable, "-c", code],
        cwd=prefix,  # whose files come first
        env={**os.environ, "PYTHONPATH": str(packages)},
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert done.returncode == 0, done.stderr
    values, package, libraries = done.stdout.splitlines()
    assert values == "[0. 1. 2.]"
    assert package.startswith(str(packages))
    assert len(libraries.split()) == 2
    for library in libraries.split():
        assert library.startswith(str(prefix)), library
    assert (packages / "zks" / "py.typed").exists()
    assert (packages / "zks" / "_bridge.pyi").exists()
