"""The exceptions: one for each kind of failure that programs handle, all of them with the status."""

from . import _native


class Error(Exception):
    """A call of the library failed.

    status: its number, as in the library's logs and manual.
    text: what the number means.
    """

    def __init__(self, status: int, where: str = ""):
        self.status = status
        self.text = _native.status_text(status)
        self.where = where
        super().__init__(status, where)

    def __str__(self):
        return "%s%s (status %d)" % (self.where + ": " if self.where else "", self.text, self.status)


class NotConnected(Error, ConnectionError):
    """There is no connection to the daemon."""


class Timeout(Error, TimeoutError):
    """No answer, or no message, came in time."""


class Closed(Error):
    """The bus or the subscription was closed."""


class InvalidSubject(Error, ValueError):
    """The text is no subject, or none that may be sent on."""


_KINDS = {2: Closed, 4: Closed, 20: InvalidSubject, 21: NotConnected, 50: Timeout, 62: Closed}


def make(status, where=""):
    return _KINDS.get(status, Error)(status, where)
