"""The examples, and each piece of code that the documents show."""
import inspect
import re
import signal
import sys

import pelmo
import pytest
from conftest import PATIENCE, ROOT, ends

EXAMPLES = ROOT / "examples" / "python"


def test_a_subscriber_a_publisher_and_a_signal(start, address):
    subscriber = start(sys.executable, EXAMPLES / "subscriber.py", address, "PRICES.>", "OTHER")
    assert subscriber.stdout.readline() == "listening\n"
    assert ends(start(sys.executable, EXAMPLES / "publisher.py", address, "PRICES.GOLD", "3")) == ""
    lines = [subscriber.stdout.readline() for _ in range(3)]
    assert [re.match(r"PRICES.GOLD {'number': (\d), 'price': 2050.5, 'at': datetime", line)[1] for line in lines] == \
        ["0", "1", "2"]
    subscriber.send_signal(signal.SIGTERM)
    assert ends(subscriber) == "ended\n"


def test_a_request_server(start, address):
    server = start(sys.executable, EXAMPLES / "request_server.py", address)
    assert server.stdout.readline() == "serving\n"
    with pelmo.connect(address) as bus:
        answer = bus.request("TIME.NOW", zone="Asia/Tokyo", timeout=PATIENCE)
        assert answer["offset"] == "+0900" and answer["now"].utcoffset().total_seconds() == 0
        bus.send("TIME.NOW", zone="no zone")
        assert "error" in bus.request("TIME.NOW", zone="no zone", timeout=PATIENCE)
        assert "error" in bus.request("TIME.NOW", zone=7, timeout=PATIENCE)
    server.send_signal(signal.SIGTERM)
    ends(server)


def blocks():
    """Each block of the document, with the line that it begins at."""
    lines = (ROOT / "docs" / "PYTHON.md").read_text().splitlines()
    block, first = [], 0
    for number, line in enumerate([*lines, "end"], 1):
        if line.startswith("    ") or (block and not line):
            first = first or number
            block.append(line[4:])
        elif block:
            if not block[0].startswith("$"):
                yield pytest.param("\n".join(block), id="line %d" % first)
            block, first = [], 0


@pytest.mark.parametrize("code", blocks())
def test_the_document_says_what_works(code, python, address):
    """Code that waits on a bus is put into a function; endless loops end by a message of the test's."""
    code = code.replace('"7500"', repr(address))
    if re.search(r"\bawait |async (with|for)", code) and "asyncio.run" not in code:
        code = "async def main():\n" + "\n".join("    " + line for line in code.split("\n")) + "\nasyncio.run(main())"
    with pelmo.connect(address) as bus:
        process = python("import asyncio, pelmo, threading\nfrom datetime import datetime, timezone\n" + code)
        while process.poll() is None:  # it may take a while until it listens
            bus.send("PRICES.GOLD", price=2050.5)
            bus.send("STOP")
            with pytest.raises(pelmo.Timeout):
                bus.request("NO.ANSWER", timeout=0.1)
    assert process.communicate(timeout=PATIENCE)[1].find("Traceback") < 0 and process.returncode == 0


def test_help_explains_all_that_is_public():
    for name in pelmo.__all__:
        thing = getattr(pelmo, name)
        assert inspect.getdoc(thing), name
        if inspect.isclass(thing) and thing.__module__.startswith("pelmo"):
            for member, value in vars(thing).items():
                if not member.startswith("_") and callable(value):
                    assert inspect.getdoc(value), "%s.%s" % (name, member)
