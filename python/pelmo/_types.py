"""Types of fields that Python has no type of its own for, and what fields are listed as."""

import typing


class _Width(int):
    """A whole number that is sent with a width of its own. OverflowError where it doesn't fit."""

    __slots__ = ()
    _pelmo_type: typing.ClassVar[str]
    _low: typing.ClassVar[int]
    _high: typing.ClassVar[int]

    def __new__(cls, value=0):
        number = super().__new__(cls, value)
        if not cls._low <= number <= cls._high:
            raise OverflowError("%d doesn't fit %s" % (number, cls.__name__))
        return number

    def __repr__(self):
        return "pelmo.%s(%d)" % (type(self).__name__, self)

    __str__ = int.__repr__


class i8(_Width):
    """An integer of 8 bits."""

    __slots__ = ()
    _pelmo_type, _low, _high = "i8", -2**7, 2**7 - 1


class u8(_Width):
    """An integer of 8 bits without a sign."""

    __slots__ = ()
    _pelmo_type, _low, _high = "u8", 0, 2**8 - 1


class i16(_Width):
    """An integer of 16 bits."""

    __slots__ = ()
    _pelmo_type, _low, _high = "i16", -2**15, 2**15 - 1


class u16(_Width):
    """An integer of 16 bits without a sign."""

    __slots__ = ()
    _pelmo_type, _low, _high = "u16", 0, 2**16 - 1


class i32(_Width):
    """An integer of 32 bits."""

    __slots__ = ()
    _pelmo_type, _low, _high = "i32", -2**31, 2**31 - 1


class u32(_Width):
    """An integer of 32 bits without a sign."""

    __slots__ = ()
    _pelmo_type, _low, _high = "u32", 0, 2**32 - 1


class i64(_Width):
    """An integer of 64 bits."""

    __slots__ = ()
    _pelmo_type, _low, _high = "i64", -2**63, 2**63 - 1


class u64(_Width):
    """An integer of 64 bits without a sign."""

    __slots__ = ()
    _pelmo_type, _low, _high = "u64", 0, 2**64 - 1


class port(_Width):
    """An IP port."""

    __slots__ = ()
    _pelmo_type, _low, _high = "port", 0, 2**16 - 1


class f32(float):
    """A real number that is sent in 32 bits, with the digits that these have."""

    __slots__ = ()
    _pelmo_type = "f32"


class xml(bytes):
    """An XML document, which is sent deflated."""

    __slots__ = ()
    _pelmo_type = "xml"


class subject(str):
    """A subject within a message."""

    __slots__ = ()
    _pelmo_type = "subject"


class Field(typing.NamedTuple):
    """A field with all that it has. Message.fields() lists them, and a list of them makes a message."""

    name: str
    """The empty text for a field without a name."""
    value: typing.Any
    type: "str | int | None" = None
    """Such as "u16" or "u16[]"; the number of a type without a name. None: as the value's own type."""
    id: int = 0
    """0 for none. Ids of one message differ."""


class Raw(typing.NamedTuple):
    """What a field of an unknown type, or of a value that isn't sound, has in the message."""

    type: int
    data: bytes
