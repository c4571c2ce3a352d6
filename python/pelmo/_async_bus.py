"""The bus for asyncio. The loop watches the descriptor of each subscription; nothing polls."""

from __future__ import annotations

import asyncio
import weakref
from collections.abc import AsyncIterator
from typing import Any, Self

from . import _bus, _errors
from ._bus import Fields, Seconds
from ._native import Message


async def run(call, abandoned=None):
    """A call that waits in the library. Cancelling leaves it to end by itself."""
    loop = asyncio.get_running_loop()
    ended = loop.create_future()

    def done():
        try:
            loop.call_soon_threadsafe(lambda: ended.done() or ended.set_result(None))
        except RuntimeError:  # the loop is closed
            pass

    work = _bus.Work(call, done, abandoned)
    try:
        await ended
    except BaseException:
        work.leave()
        raise
    return work.result()


def _waker(reference):
    """The loop's callback, which doesn't keep a subscription that nothing else holds any more."""
    def wake():
        subscription = reference()
        if subscription is not None:
            subscription._wake()
    return wake


class AsyncSubscription(_bus.BaseSubscription):
    """Messages on one subject or several, in the order in which they came: an asynchronous iterator.

    It belongs to the loop that it was made on. Any number of tasks may take from it; each message goes
    to one of them. It ends when it is closed, or its bus is.
    """

    def __init__(self, limit, drop):
        self._loop = asyncio.get_running_loop()
        super().__init__(limit, drop)
        self._waiters = set()
        self._waited = True
        self._loop.add_reader(self._intake.fd, _waker(weakref.ref(self)))

    def _wake(self):
        self._intake.quiet()
        for waiter in self._waiters:
            if not waiter.done():
                waiter.set_result(None)

    async def _wait(self):
        waiter = self._loop.create_future()
        self._waiters.add(waiter)
        try:
            await waiter
        finally:
            self._waiters.discard(waiter)

    async def _fill(self):
        """Takes what waits, or waits for it. Returns False once it is closed. Others run in between, however
        much there is to take."""
        if not self._waited:
            await asyncio.sleep(0)
        self._waited = False
        while not self._batch:
            batch = self._intake.take()
            if batch:
                self._batch.extend(batch)
            elif self.closed:
                return False
            else:
                self._waited = True
                await self._wait()
        return True

    async def get(self, timeout: Seconds = None) -> Message:
        """The next message. Raises Timeout after that many seconds, and Closed once it is closed."""
        try:
            async with asyncio.timeout(timeout):
                return await self.__anext__()
        except StopAsyncIteration:
            raise _errors.Closed(_bus.INVALID_QUEUE, "the subscription") from None
        except TimeoutError:
            raise _errors.Timeout(_bus.TIMEOUT, "no message came") from None

    async def batches(self) -> AsyncIterator[list[Message]]:
        """The messages as lists of what waits, which is faster where there are very many."""
        while self._batch or await self._fill():
            batch = list(self._batch)
            self._batch.clear()
            yield batch

    def __aiter__(self) -> AsyncIterator[Message]:
        return self

    async def __anext__(self) -> Message:
        batch = self._batch
        while not batch:
            if not await self._fill():
                raise StopAsyncIteration
        return batch.popleft()

    async def __aenter__(self) -> Self:
        return self

    async def __aexit__(self, *_):
        self.close()

    def close(self) -> None:
        """Nothing comes any more; what was taken off the queue already can still be had. May be called
        by a handler of loop.add_signal_handler, and ends an `async for`."""
        if self.closed:
            return
        self._intake.close()
        if not self._loop.is_closed():
            self._loop.remove_reader(self._intake.fd)
            self._wake()

    def __del__(self):
        """May run on any thread; the descriptor stays open until the loop has let it go."""
        intake = getattr(self, "_intake", None)
        if intake is None or intake.closed:
            return
        intake.close()
        try:
            self._loop.call_soon_threadsafe(lambda loop: loop.remove_reader(intake.fd), self._loop)
        except RuntimeError:  # the loop is closed
            pass


class AsyncBus(_bus.Base):
    """A connection to the bus, for asyncio: it belongs to the loop that it was made on.

    Made by `async with pelmo.connect(...) as bus`, or `await pelmo.connect(...)`.
    """

    async def send(self, subject: str, message: Fields = None, /, **fields: Any) -> None:
        """Sends a message: a mapping, a Message or Fields, and fields by name.

        Waits while more than 16 MiB wait for the daemon, and lets other tasks run now and then. Raises
        NotConnected while there is no connection: nothing is kept to be sent later.
        """
        waiting = self._link.send(subject, message, fields, None)
        if waiting is not None:
            await self._rest(waiting)

    async def _rest(self, waiting):
        if waiting is True:
            await asyncio.sleep(0)
        else:
            await run(waiting.send)

    async def request(self, subject: str, message: Fields = None, /, *, timeout: Seconds = _bus.DEFAULT_TIMEOUT,
                      **fields: Any) -> Message:
        """Sends a message and waits for the first answer. Raises Timeout after so many seconds; None
        waits without a limit."""
        inbox = self.inbox()
        with self.listen(inbox, limit=None) as answers:
            waiting = self._link.send(subject, message, fields, inbox)
            if waiting is not None and waiting is not True:
                await run(waiting.send)
            return await answers.get(timeout)

    async def reply(self, request: Message, message: Fields = None, /, **fields: Any) -> None:
        """Answers a message that was sent by request. ValueError for one that wasn't."""
        waiting = self._link.send(_bus.reply_subject(request), message, fields, None)
        if waiting is not None:
            await self._rest(waiting)

    def listen(self, *subjects: str, limit: int | None = _bus.DEFAULT_LIMIT,
               drop: str = "oldest") -> AsyncSubscription:
        """An AsyncSubscription to the messages on these subjects, from now on.

        limit: how many may wait for the program; None for no limit. drop: which go when there are more,
        a sixteenth of the limit at once: the "oldest" or the "newest" of those that wait.
        """
        return self._listen(AsyncSubscription(limit, drop), subjects)

    async def close(self, timeout: Seconds = None) -> None:
        """Ends all subscriptions, waits until what was sent has left, and closes the connection. Raises
        Error with the status 101 where that isn't sure, or not within so many seconds."""
        self._close_subscriptions()
        await run(lambda: self._link.close(timeout))

    async def __aenter__(self) -> AsyncBus:
        return self

    async def __aexit__(self, *_):
        await self.close()
