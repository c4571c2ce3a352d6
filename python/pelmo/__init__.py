"""Pelmo, a message bus, for Python.

With asyncio:

    async with pelmo.connect("7500") as bus:
        await bus.send("PRICES.GOLD", price=2050.5, unit="oz")
        answer = await bus.request("TIME.NOW", zone="UTC", timeout=2)
        async for message in bus.listen("PRICES.>"):
            print(message.time, message.subject, message["price"])
            if message.reply:
                await bus.reply(message, ok=True)

and the same without it, for programs with threads:

    with pelmo.connect("7500") as bus:
        for message in bus.listen("PRICES.>"):
            ...

Messages are mappings of names to values. An int is sent as an i32, i64 or u64, the first that holds it;
pelmo.u16(7) and its like name another width. Failures are pelmo.Error or one of its classes, with the
library's status. The library is open from the first use to the end of the interpreter.
"""

import atexit
import collections.abc
import ipaddress
import os

from . import _async_bus, _bus, _errors, _native
from ._async_bus import AsyncBus, AsyncSubscription
from ._bus import Bus, Subscription
from ._errors import Closed, Error, InvalidSubject, NotConnected, Timeout
from ._native import Message
from ._types import Field, Raw, f32, i8, i16, i32, i64, port, subject, u8, u16, u32, u64, xml

__all__ = ["AsyncBus", "AsyncSubscription", "Bus", "Closed", "Connecting", "Error", "Field", "InvalidSubject", "Message",
           "NotConnected", "Raw", "Subscription", "Timeout", "connect", "f32", "i16", "i32", "i64", "i8",
           "in_process", "port", "subject", "u16", "u32", "u64", "u8", "xml"]
__version__ = _native.version()


class Connecting:
    """A connection that is yet to be made, in one of the two ways that there are."""

    def __init__(self, options):
        self._options = options
        self._bus = None

    def open(self) -> Bus:
        """Waits for the daemon and returns a Bus."""
        return Bus(_bus.Work(lambda: _bus.connect(self._options), abandoned=_bus.close_quietly).wait())

    async def _open(self):
        return AsyncBus(await _async_bus.run(lambda: _bus.connect(self._options), _bus.close_quietly))

    def __await__(self):
        return self._open().__await__()

    def __enter__(self) -> Bus:
        self._bus = self.open()
        return self._bus

    def __exit__(self, *_):
        self._bus.close()

    async def __aenter__(self) -> AsyncBus:
        self._bus = await self._open()
        return self._bus

    async def __aexit__(self, *_):
        await self._bus.close()


def connect(daemon: "str | int | None" = None, *, service: "str | None" = None, network: "str | None" = None,
            description: "str | None" = None, echo: bool = True) -> Connecting:
    """Connects to a bus daemon: `with` gives a Bus, `async with` and `await` an AsyncBus.

    daemon: 7500, "7500" or ":7500" for that port of this host, "HOST:7500" for another host; without it port 7500
    of this host, where a daemon is started if there is none. service, network: which traffic, as the daemon
    has it. description: what the daemon calls this program. echo: does it hear what it sends itself?

    Raises NotConnected where there is no daemon.
    """
    if isinstance(daemon, int):
        daemon = str(daemon)
    return Connecting({"daemon": daemon, "service": service, "network": network, "description": description,
                       "echo": echo})


def in_process() -> Connecting:
    """The transport within this process, used like a connection and without a daemon. Warnings of the
    library itself come here, on the subjects "_PM.>"."""
    return Connecting(None)


def _at_exit():
    """Threads that wait get an end; then what was sent leaves."""
    for intake in list(_bus.open_intakes):
        intake.close()
    _native.end()


_native.use({"error": _errors.make, "Field": Field, "Raw": Raw, "xml": xml, "IPv4Address": ipaddress.IPv4Address})
Message.__module__ = "pelmo"
collections.abc.Mapping.register(Message)
atexit.register(_at_exit)
os.register_at_fork(after_in_child=_native.forked)
