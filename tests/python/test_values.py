"""Values both ways: what Python sends is what it reads, with its type, and what it can't send is refused."""
import array
import collections.abc
import copy
import datetime
import ipaddress
import pickle
import struct
import zoneinfo

import packets
import pelmo
import pytest

UTC = datetime.timezone.utc
TOKYO = datetime.datetime(2024, 2, 29, 23, 59, 59, 999999, zoneinfo.ZoneInfo("Asia/Tokyo"))

# Value, the type it is sent as, and what is read where that isn't equal.
ROWS = [
    (7, "i32"), (-2**31, "i32"), (2**31, "i64"), (-2**63, "i64"), (2**63, "u64"), (2**64 - 1, "u64"),
    (pelmo.i8(-128), "i8"), (pelmo.u8(255), "u8"), (pelmo.i16(-2**15), "i16"), (pelmo.u16(65535), "u16"),
    (pelmo.i32(1), "i32"), (pelmo.u32(2**32 - 1), "u32"), (pelmo.i64(-1), "i64"), (pelmo.u64(2**64 - 1), "u64"),
    (pelmo.port(7500), "port"), (True, "bool"), (False, "bool"), (None, "none"),
    (2050.5, "f64"), (float("-inf"), "f64"), (pelmo.f32(0.5), "f32"),
    ("", "string"), ("Gold €", "string"), ("a\0b", "string"), ("bad \udcff byte", "string"),
    (b"\0\xff", "opaque"), (bytearray(b"xy"), "opaque"), (memoryview(b"xy"), "opaque"),
    (pelmo.xml(b"<a/>"), "xml"), (pelmo.subject("A.B.C"), "subject"), (ipaddress.IPv4Address("10.1.2.3"), "ip"),
    (TOKYO, "datetime"), (datetime.datetime(1, 1, 1, tzinfo=UTC), "datetime"),
    (datetime.datetime(9999, 12, 31, 23, 59, 59, 999999, UTC), "datetime"),
    ({"a": {"b": {"c": [1]}}}, "msg"), ([{"a": 1}, {}], "msg[]"), (["x", "", "ü"], "string[]"),
    ([1, 2**31], "i64[]"), ([1, 2**63], "u64[]"), ([1, 2.5], "f64[]"), ((1, 2), "i32[]", [1, 2]),
    ([pelmo.u8(1), pelmo.u8(2)], "u8[]"), (array.array("H", [1, 65535]), "u16[]", [1, 65535]),
    (array.array("d", [1.5]), "f64[]", [1.5]), (array.array("l", [-1]), "i64[]", [-1]),
    (memoryview(array.array("f", [0.5, 2])), "f32[]", [0.5, 2.0]),
]

ENDLESS = {}
ENDLESS["again"] = ENDLESS
REFUSED = [
    (2**64, OverflowError), (-2**63 - 1, OverflowError), ([-1, 2**63], OverflowError), ([], ValueError),
    ([2**53 + 1, 0.5], OverflowError), (pelmo.f32(1e300), OverflowError), ([1, "x"], TypeError), ([True], TypeError), ([[1]], TypeError), ({1, 2}, TypeError), (object(), TypeError),
    (datetime.datetime(2024, 1, 1), ValueError), (datetime.date(2024, 1, 1), TypeError), (1j, TypeError),
    ({1: 2}, TypeError), ({"a\0b": 1}, ValueError), (["a\0b"], ValueError), (pelmo.subject("A..B"), pelmo.Error),
    (memoryview(b"abcd").cast("B", (2, 2)).cast("B").cast("c"), TypeError), ({"x" * 127: 1}, pelmo.Error), (ENDLESS, RecursionError),
]


def test_values_arrive_as_they_were_sent():
    message = pelmo.Message({"f%d" % number: row[0] for number, row in enumerate(ROWS)})
    with pelmo.in_process() as bus, bus.listen("VALUES") as received:
        bus.send("VALUES", message)
        bus.send("VALUES", message.fields())
        for arrived in (received.get(5), received.get(5)):
            assert isinstance(arrived, collections.abc.Mapping)
            for field, row in zip(arrived.fields(), ROWS, strict=True):
                wanted = row[2] if len(row) > 2 else row[0]
                assert (field.value, field.type) == (wanted, row[1])
                assert arrived[field.name] == wanted
            assert bytes(arrived) == bytes(message)
    assert message.fields()[ROWS.index((TOKYO, "datetime"))].value.utcoffset() == datetime.timedelta(0)


@pytest.mark.parametrize("value, error", REFUSED)
def test_what_can_not_be_sent_is_refused(value, error):
    with pytest.raises(error):
        pelmo.Message({"field": value})


def test_widths_are_bounds():
    for cls, low, high in ((pelmo.i8, -128, 127), (pelmo.u16, 0, 65535), (pelmo.i64, -2**63, 2**63 - 1)):
        assert cls(low) == low and cls(high) == high
        for beyond in (low - 1, high + 1):
            with pytest.raises(OverflowError):
                cls(beyond)
            with pytest.raises(OverflowError):
                pelmo.Message([pelmo.Field("x", beyond, cls.__name__)])
            with pytest.raises(OverflowError):
                pelmo.Message([pelmo.Field("x", [0, beyond], cls.__name__ + "[]")])
    assert pickle.loads(pickle.dumps(pelmo.u16(7))) == 7 and repr(pelmo.u16(7)) == "pelmo.u16(7)"


def test_a_message_is_a_mapping_and_keeps_repeated_names_and_ids():
    fields = [pelmo.Field("a", 1, "i8"), pelmo.Field("b", "x", "string", 65535), pelmo.Field("a", 2, "u64"),
              pelmo.Field("", 3, "i32")]
    message = pelmo.Message(fields)
    assert message.fields() == fields
    assert list(message) == ["a", "b", ""] and len(message) == 3 and dict(message) == {"a": 1, "b": "x", "": 3}
    assert message == {"a": 1, "b": "x", "": 3} and message != {"a": 1}
    assert "b" in message and "c" not in message and message.get("c", 9) == 9
    assert dict(pelmo.Message(message, more=4)) == {"a": 1, "b": "x", "": 3, "more": 4}
    with pytest.raises(KeyError):
        message["c"]
    with pytest.raises(TypeError):
        hash(message)
    with pytest.raises(pelmo.Error) as caught:
        pelmo.Message([pelmo.Field("a", 1, None, 5), pelmo.Field("b", 1, None, 5)])
    assert caught.value.status == 36 and "'b'" in str(caught.value)
    assert copy.copy(message) is message and copy.deepcopy([message])[0] is message
    values = pelmo.Message(v=array.array("q", range(1000))).numbers("v")
    assert values.format == "q" and list(values) == list(range(1000))


def test_arrays_of_numpy_are_numbers_or_refused():
    numpy = pytest.importorskip("numpy")
    for kind in "int8 uint16 int32 uint64 float32 float64".split():
        assert pelmo.Message(x=numpy.array([1, 2], kind)).numbers("x").tolist() == [1, 2]
    for value in (numpy.datetime64("2024"), numpy.array(["a"]), numpy.array([True]), numpy.array([1j])):
        with pytest.raises(TypeError):
            pelmo.Message(x=value)


def test_fields_of_unknown_types_are_shown_as_they_came():
    body = packets.field("odd", 200, b"hi") + packets.field("wide", 11, b"abc") + packets.field("ok", 14, b"\x07")
    image = struct.pack(">II", 8 + len(body), 0x9955eeaa) + body
    message = pelmo.Message.from_bytes(image)
    assert dict(message) == {"odd": pelmo.Raw(200, b"hi"), "wide": pelmo.Raw(11, b"abc"), "ok": message["ok"]}
    assert message["odd"] == (200, b"hi") and message["wide"] == (11, b"abc")
    with pelmo.in_process() as bus, bus.listen("R") as received:
        bus.send("R", message)
        assert bytes(received.get(5)) == image
    for torn in (b"", image[:6], image[:-1], b"\0\0\0\x04" + image[4:], b"\0" * 16):
        with pytest.raises(pelmo.Error):
            pelmo.Message.from_bytes(torn).fields()
