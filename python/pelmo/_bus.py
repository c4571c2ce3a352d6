"""What both kinds of bus share, and the one for programs with threads."""

from __future__ import annotations

import collections
import threading
import time
import weakref
from collections.abc import Iterable, Iterator, Mapping
from typing import Any, Optional, Self, Union

from . import _errors, _native, _types
from ._native import Message

Fields = Union[Mapping[str, Any], Message, Iterable[_types.Field], None]
Seconds = Optional[float]

DEFAULT_LIMIT = 100_000
DEFAULT_TIMEOUT = 10.0
INVALID_QUEUE = 62
TIMEOUT = 50

# Those that threads may wait at when the interpreter ends.
open_intakes = weakref.WeakSet()


def intake(limit, drop):
    if drop not in ("oldest", "newest"):
        raise ValueError("drop is 'oldest' or 'newest', not %r" % (drop,))
    if limit is not None and limit < 1:
        raise ValueError("a limit is at least 1, or None")
    made = _native.Intake(limit or 0, drop == "oldest")
    open_intakes.add(made)
    return made


def connect(options):
    """Waits for the daemon. Options as of pelmo.connect, or None for the transport of this process."""
    if options is None:
        return _native.Link.in_process()
    link = _native.Link(options["service"], options["network"], options["daemon"])
    if options["description"]:
        link.describe(options["description"])
    if not options["echo"]:
        link.set_echo(False)
    return link


class Work:
    """A call that waits in the library, on a thread of its own: so an interrupt or a cancellation ends the
    wait for it, while it goes on until it has ended itself. Then `abandoned` has its result, if no one
    waits for it any more."""

    def __init__(self, call, done=None, abandoned=None):
        self._call, self._done, self._abandoned = call, done, abandoned
        self._result = self._error = None
        self._lock = threading.Lock()
        self._state = "runs"
        self._ended = threading.Event()
        threading.Thread(target=self._run, name="pelmo", daemon=True).start()

    def _run(self):
        try:
            self._result = self._call()
        except BaseException as error:  # the one who waits raises it
            self._error = error
        with self._lock:
            left = self._state == "left"
            self._state = "ended"
        self._ended.set()
        if not left and self._done:
            self._done()
        if left and self._error is None and self._abandoned:
            self._abandoned(self._result)

    def leave(self):
        with self._lock:
            ended = self._state == "ended"
            self._state = "left"
        if ended and self._error is None and self._abandoned:
            self._abandoned(self._result)

    def result(self):
        if self._error is not None:
            raise self._error
        return self._result

    def wait(self):
        try:
            self._ended.wait()
        except BaseException:
            self.leave()
            raise
        return self.result()


def close_quietly(link):
    try:
        link.close(0.0)
    except _errors.Error:
        pass


class Base:
    """The parts that don't wait."""

    def __init__(self, link):
        self._link = link
        self._subscriptions = weakref.WeakSet()

    @property
    def unsent(self) -> dict[str, int]:
        """What the daemon hasn't got yet, and what broken connections have lost, as a dictionary:
        waiting_messages, waiting_bytes, lost_messages, lost_bytes."""
        return self._link.unsent()

    def inbox(self) -> str:
        """A subject of its own, for one listener: where answers come."""
        return self._link.inbox()

    def _listen(self, subscription, subjects):
        if not subjects:
            raise ValueError("nothing to listen to")
        try:
            for subject in subjects:
                self._link.listen(subscription._intake, subject)
        except BaseException:
            subscription.close()
            raise
        self._subscriptions.add(subscription)
        return subscription

    def _close_subscriptions(self):
        for subscription in list(self._subscriptions):
            subscription.close()


def reply_subject(message):
    if message.reply is None:
        raise ValueError("the message asks for no reply")
    return message.reply


class BaseSubscription:
    """What both kinds of subscription have: the queue, and the messages that were taken off it."""

    def __init__(self, limit, drop):
        self._intake = intake(limit, drop)
        self._batch = collections.deque()

    @property
    def dropped(self) -> int:
        """How many messages were dropped at the limit since it began."""
        return self._intake.dropped

    @property
    def closed(self) -> bool:
        return self._intake.closed

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_):
        self.close()


class Subscription(BaseSubscription):
    """Messages on one subject or several, in the order in which they came: an iterator that waits.

    Any number of threads may take from it; each message goes to one of them. It ends when it is closed,
    or its bus is.
    """

    def __init__(self, limit, drop):
        super().__init__(limit, drop)
        self._taking = threading.Lock()

    def get(self, timeout: Seconds = None) -> Message:
        """The next message. Raises Timeout after that many seconds, and Closed once it is closed."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            try:
                return self._batch.popleft()
            except IndexError:
                pass
            if self._take():
                continue
            if self.closed:
                raise _errors.Closed(INVALID_QUEUE, "the subscription")
            if not self._intake.wait(None if deadline is None else deadline - time.monotonic()):
                raise _errors.Timeout(TIMEOUT, "no message came")

    def _take(self):
        """Under a lock, so that what one thread takes first is also what comes first in the batch."""
        with self._taking:
            batch = self._intake.take()
            self._batch.extend(batch)
        return bool(batch)

    def __iter__(self) -> Iterator[Message]:
        return self

    def __next__(self) -> Message:
        try:
            return self._batch.popleft()
        except IndexError:
            pass
        try:
            return self.get()
        except _errors.Closed:
            raise StopIteration from None

    def close(self) -> None:
        """Nothing comes any more; what was taken off the queue already can still be had."""
        self._intake.close()


class Bus(Base):
    """A connection to the bus, for programs with threads: any of them may use it.

    Made by `with pelmo.connect(...) as bus`, or pelmo.connect(...).open().
    """

    def send(self, subject: str, message: Fields = None, /, **fields: Any) -> None:
        """Sends a message: a mapping, a Message or Fields, and fields by name.

        Waits while more than 16 MiB wait for the daemon. Raises NotConnected while there is no connection:
        nothing is kept to be sent later.
        """
        self._send(subject, message, fields, None)

    def _send(self, subject, message, fields, reply):
        waiting = self._link.send(subject, message, fields, reply)
        if waiting is not None and waiting is not True:
            Work(waiting.send).wait()

    def request(self, subject: str, message: Fields = None, /, *, timeout: Seconds = DEFAULT_TIMEOUT,
                **fields: Any) -> Message:
        """Sends a message and waits for the first answer. Raises Timeout after so many seconds; None
        waits without a limit."""
        inbox = self.inbox()
        with self.listen(inbox, limit=None) as answers:
            self._send(subject, message, fields, inbox)
            return answers.get(timeout)

    def reply(self, request: Message, message: Fields = None, /, **fields: Any) -> None:
        """Answers a message that was sent by request. ValueError for one that wasn't."""
        self._send(reply_subject(request), message, fields, None)

    def listen(self, *subjects: str, limit: int | None = DEFAULT_LIMIT, drop: str = "oldest") -> Subscription:
        """A Subscription to the messages on these subjects, from now on.

        limit: how many may wait for the program; None for no limit. drop: which go when there are more,
        a sixteenth of the limit at once: the "oldest" or the "newest" of those that wait.
        """
        return self._listen(Subscription(limit, drop), subjects)

    def close(self, timeout: Seconds = None) -> None:
        """Ends all subscriptions, waits until what was sent has left, and closes the connection. Raises
        Error with the status 101 where that isn't sure, or not within so many seconds."""
        self._close_subscriptions()
        Work(lambda: self._link.close(timeout)).wait()

    def __enter__(self) -> Bus:
        return self

    def __exit__(self, *_):
        self.close()
