"""How programs end: their last messages arrive, nothing hangs, nothing complains; and nothing is leaked."""
import os
import signal
import sys

import pelmo
import pytest
from conftest import PATIENCE, ends, known

# Each ends by itself, without closing what it opened.
ENDINGS = {
    "at the end of the script": "bus.send('END', n=1)",
    "by an exception": "bus.send('END', n=1); sys.excepthook = lambda *_: None; raise KeyError",
    "with a thread that waits": """
t = threading.Thread(target=lambda: list(bus.listen('X')), daemon=True); t.start(); bus.send('END', n=1)""",
    "with messages and subscriptions alive": """
s = bus.listen('X'); bus.send('X', m={'a': [1]}); kept = s.get(60); part = kept['m']; bus.send('END', n=1)""",
    "within a loop": """
async def main():
    global b, s
    b = await pelmo.connect(sys.argv[1]); s = b.listen('X'); await b.send('END', n=1)
asyncio.run(main())""",
    "in a cycle": "class C: pass\nc = C(); c.c = c; c.bus = bus; c.s = bus.listen('X'); bus.send('END', n=1)",
}
PRELOADED = os.environ.get("LD_PRELOAD", "")
PRELUDE = "import asyncio, os, signal, sys, threading, time\nimport pelmo\n"
OPEN = PRELUDE + "bus = pelmo.connect(sys.argv[1]).open()\n"


@pytest.mark.parametrize("how", ENDINGS)
def test_what_was_sent_arrives_however_the_program_ends(how, python, address):
    with pelmo.connect(address) as bus, bus.listen("END") as messages:
        known(bus)
        process = python(OPEN + ENDINGS[how], address)
        assert messages.get(PATIENCE)["n"] == 1
        ends(process, 1 if "exception" in how else 0)


@pytest.mark.parametrize("wait", [
    "waits(); list(bus.listen('X'))", "waits(); bus.request('X', timeout=None)", "waits(); bus.listen('X').get()",
    "asyncio.run(main())", "threading.Thread(target=fills, daemon=True).start(); sends()",
])
def test_an_interrupt_ends_any_wait(wait, python, daemon, address):
    """Such as of a send while the daemon doesn't read."""
    main = """
def fills():
    while bus.unsent['waiting_bytes'] < 16 << 20: time.sleep(0.05)
    waits()
def sends():
    os.kill(int(sys.argv[2]), signal.SIGSTOP)
    while bus.unsent['waiting_bytes'] < 32 << 20: bus.send('X', data=bytes(100_000))
async def main():
    async with pelmo.connect(sys.argv[1]) as b:
        waits()
        async for m in b.listen('X'): pass
def waits():
    print('waits', flush=True)
"""
    script = OPEN + main + "try:\n    %s\nexcept KeyboardInterrupt:\n    print('interrupted', flush=True)"
    process = python(script % wait, address, str(daemon.popen.pid))
    assert process.stdout.readline() == "waits\n"
    process.send_signal(signal.SIGINT)
    assert process.stdout.readline() == "interrupted\n"
    daemon.popen.send_signal(signal.SIGCONT)
    ends(process)


FORKS = """
kept, s = pelmo.Message(a=1), bus.listen('X')
child = os.fork()
if child == 0:
    for call in (lambda: bus.send('X'), lambda: pelmo.Message(), lambda: s.get(0), lambda: kept['a'],
                 lambda: pelmo.connect(sys.argv[1]).open()):
        try:
            call()
        except RuntimeError as error:
            assert 'forked' in str(error)
        else:
            sys.exit(7)
    del kept, s, bus
    sys.exit(0)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
bus.send('X', n=1)
assert s.get(60)['n'] == 1 and kept['a'] == 1
"""
WORKERS = """
child = os.fork()
with pelmo.connect(sys.argv[1]) as bus, bus.listen('X') as s:
    bus.send('X')
    s.get(60)
if child: assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
"""


@pytest.mark.skipif("tsan" in PRELOADED, reason="the thread sanitizer has no threads after a fork")
def test_a_forked_child_leaves_the_library_alone_or_has_its_own(python, address):
    ends(python(OPEN + FORKS, address))
    ends(python(PRELUDE + WORKERS, address))


# Counts what 20,000 messages leave: blocks of memory, and references to what all share. Those of a debug
# interpreter's own count leave out what compiled code does. The first rounds fill caches.
GROWTH = """
import gc, pathlib
def rounds(n):
    for i in range(n):
        bus.send('A', {'n': i, 'l': [i] * 10, 'm': {'a': ['x', 'y']}, 's': 'text'}, d=b'1234')
        if i % 100 == 99:
            for _ in range(100):
                m = s.get(60)
                m['n'], m['l'], m['m']['a'], dict(m), m.fields(), m.subject, m.time, m.numbers('l'), str(m)
                try: m['none']
                except KeyError: pass
            try: bus.send('A..B')
            except pelmo.Error: pass
            try: pelmo.Message(x=[1, 'x'])
            except TypeError: pass
def size():
    gc.collect()
    shared = (None, True, (), '', b'', 0, 1, 7, 'n', 'x', pelmo.Message, pelmo.Field, dict, list, int, str)
    return sys.getallocatedblocks() + sum(map(sys.getrefcount, shared)), int(pathlib.Path('/proc/self/statm').read_text().split()[1]) * 4096
s = bus.listen('A')
rounds(5000)
before = size()
rounds(int(sys.argv[2]))
after = size()
print(after[0] - before[0], after[1] - before[1])
"""


@pytest.mark.skipif(bool(PRELOADED), reason="sanitizers keep memory that was freed")
@pytest.mark.parametrize("interpreter", [sys.executable, "/usr/bin/python3.11-dbg"])
def test_messages_leave_no_memory(interpreter, python, address):
    if not os.path.exists(interpreter):
        pytest.skip("there is no %s" % interpreter)
    objects, resident = map(int, ends(python(GROWTH.replace("import gc", OPEN + "import gc", 1), address, "20000",
                                             interpreter=interpreter)).split())
    assert objects < 500 and resident < 2 << 20
