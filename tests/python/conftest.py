"""What the tests share: a real daemon, the programs of the build, and Python as a child."""
import asyncio
import functools
import os
import pathlib
import re
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))
from bus_client import Daemon  # noqa: E402

PATIENCE = 60


@pytest.fixture
def daemon():
    made = Daemon(pathlib.Path(os.environ["PELMO_BIN"]) / "pmd")
    yield made
    made.close()


@pytest.fixture
def address(daemon):
    return "127.0.0.1:%d" % daemon.port


@pytest.fixture
def start():
    """Starts a program with its output in pipes; it doesn't outlive the test."""
    started = []

    def start_one(*command, **more):
        started.append(subprocess.Popen([str(word) for word in command], text=True, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, **more))
        return started[-1]

    yield start_one
    for process in started:
        process.kill()
        process.communicate()


@pytest.fixture
def python(start):
    """Starts Python with a script that is given as text, and with a file beside the examples."""
    def start_python(script, *words, interpreter=sys.executable):
        return start(interpreter, "-X", "dev", "-W", "error", "-c", script, *words)

    return start_python


def in_loop(test):
    """Runs a test that is a coroutine, with asyncio's own checks."""
    @functools.wraps(test)
    def run(*arguments, **named):
        asyncio.run(test(*arguments, **named), debug=True)
    return run


def known(bus):
    """Returns when the daemon knows what the bus listens to: it takes in order what one transport sends."""
    inbox = bus.inbox()
    with bus.listen(inbox) as messages:
        bus.send(inbox)
        messages.get(PATIENCE)


def ends(process, status=0):
    """What the program printed, once it has ended with that status and no complaint but of a busy machine."""
    out, err = process.communicate(timeout=PATIENCE)
    complaints = [line for line in err.splitlines() if not re.match("Executing <.* took .* seconds", line)]
    assert (process.returncode, complaints) == (status, [])
    return out
