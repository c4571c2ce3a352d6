"""The bus over a real daemon, with threads and without asyncio."""
import threading
import time

import pelmo
import pytest
from conftest import PATIENCE, known


def test_messages_requests_and_replies(daemon, address):
    with pelmo.connect(address, description="test") as bus, pelmo.connect(daemon.port, echo=False) as other:
        questions = bus.listen("TIME.NOW", "TIME.*")
        known(bus)
        server = threading.Thread(target=lambda: bus.reply(questions.get(PATIENCE), zone="UTC", n=pelmo.u8(3)))
        server.start()
        answer = other.request("TIME.NOW", {"timeout": 1}, zone="x", timeout=PATIENCE)
        server.join()
        assert dict(answer) == {"zone": "UTC", "n": 3} and answer.reply is None
        assert abs(answer.time.timestamp() - time.time()) < PATIENCE
        again = questions.get(PATIENCE)  # the other of the two subjects
        assert (again.subject, dict(again)) == ("TIME.NOW", {"timeout": 1, "zone": "x"}) and again.reply
        with other.listen("OWN") as own:
            other.send("OWN")
            with pytest.raises(pelmo.Timeout) as caught:
                own.get(0.05)
            assert caught.value.status == 50 and isinstance(caught.value, TimeoutError)
        with pytest.raises(pelmo.Timeout):
            other.request("NO.ANSWER", timeout=0.05)
        with pytest.raises(ValueError):
            bus.reply(answer)
    for call in (lambda: bus.send("A"), lambda: bus.listen("A"), bus.inbox, lambda: bus.request("A")):
        with pytest.raises(pelmo.Closed):
            call()
    assert list(questions) == []


def test_failures_have_their_status(address):
    with pelmo.connect(address) as bus:
        for subject in ("", "A..B", "_PM.X", "x" * 300):
            with pytest.raises(pelmo.InvalidSubject) as caught:
                bus.send(subject)
            assert (caught.value.status, caught.value.text) == (20, "Invalid subject")
        for wrong in ({"limit": 0}, {"drop": "some"}):
            with pytest.raises(ValueError):
                bus.listen("A", **wrong)
        for subjects in ((), ("A", "B..C"), ("A\0B",)):
            with pytest.raises(ValueError):
                bus.listen(*subjects)
    with pytest.raises(pelmo.NotConnected) as caught:
        pelmo.connect("127.0.0.1:1").open()
    assert caught.value.status == 21 and isinstance(caught.value, ConnectionError)


def test_a_break_is_reported_and_mended(daemon, address):
    with pelmo.connect(address) as bus, bus.listen("A", "_PM.>") as messages:
        daemon.popen.kill()
        assert messages.get(PATIENCE).subject == "_PM.WARN.SYSTEM.PMD.DISCONNECTED"
        with pytest.raises(pelmo.NotConnected):
            bus.send("A")
        from bus_client import Daemon
        second = Daemon(daemon.popen.args[0], port=daemon.port)
        try:
            assert messages.get(PATIENCE).subject == "_PM.INFO.SYSTEM.PMD.RECONNECTED"
            bus.send("A", n=1)
            assert messages.get(PATIENCE)["n"] == 1
        finally:
            second.close()


@pytest.mark.parametrize("drop", ["oldest", "newest"])
def test_a_slow_program_loses_what_its_policy_says_and_sees_how_much(drop):
    with pelmo.in_process() as bus, bus.listen("A", limit=100, drop=drop) as messages:
        for number in range(1000):
            bus.send("A", n=number)
        dropped = messages.dropped
        got = [messages.get(1)["n"] for _ in range(1000 - dropped)]
        assert 90 < len(got) <= 100 and got == sorted(got) and got[-1] == 999
        assert (got[0] == 0) == (drop == "newest")
        with pytest.raises(pelmo.Timeout):
            messages.get(0)
        assert messages.dropped == dropped


def test_threads_share_a_subscription_and_each_message_goes_to_one():
    count, got = 20_000, [[] for _ in range(4)]
    with pelmo.in_process() as bus, bus.listen("A", limit=None) as messages:
        threads = [threading.Thread(target=lambda mine=mine: mine.extend(message["n"] for message in messages))
                   for mine in got]
        for thread in threads:
            thread.start()
        for number in range(count):
            bus.send("A", n=number)
        deadline = time.monotonic() + PATIENCE
        while sum(map(len, got)) < count and time.monotonic() < deadline:
            time.sleep(0.02)
    for thread in threads:
        thread.join(PATIENCE)
    assert sorted(sum(got, [])) == list(range(count))
    assert all(mine == sorted(mine) for mine in got)
