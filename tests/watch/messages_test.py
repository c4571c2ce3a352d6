"""pelmowatch messages on captures whose packets are written by hand, and on a mix of all kinds."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import HOSTILE_SUBJECTS, MIX, ProgramCase, binary, main, messages, packets, run  # noqa: E402

WATCH = binary("pelmowatch")
# One with all the microseconds that a second has, one with more nanoseconds than 32 bits hold.
DATES = "00000001000f423f", "0000000100418938"
LONG = packets.Payload('{<LONG>(text:8:"%s"00)}' % ("abcdefghij" * 300)).parts()


def part(seq, fragment, begin, end=None, more=""):
    return "data seq=%d fragment=%d %s%s" % (seq, fragment, LONG[begin:end].hex(), more)


def raw(text):
    """The bytes of a text, of which some may be no UTF-8."""
    return text.encode("utf-8", "surrogateescape")


class Messages(ProgramCase):
    def read(self, packet_lines, *options):
        done = run(WATCH, "messages", "-r", self.capture_of("packets", *packet_lines), *options)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return self.sound_lines(done.stdout, "pelmo-messages")

    def test_a_line_has_place_time_subjects_and_fields(self):
        data = packets.Payload("{(x:11:0000002a)(sub:8:\"mine\"00)}").parts()
        # A nested message's prefix is its own length.
        nested = "{<A.B>%s(mtype:8:\"D\"00)%s}" % (packets.field("return", 8, b"_INBOX.1\0").hex(),
                                                 (b"\5data\0\1\x7a" + data).hex())
        place = {"port": 7500, "group": "239.1.1.1", "sender": "10.0.0.1", "scid": 7001}
        x = {"name": "x", "type": "i32", "value": 42}
        self.assertEqual(self.read([
            "at 1700000000.25", "data seq=7 " + nested, "at 1700000001.5", "data seq=8 {<A.C>(x:11:0000002a)}",
            "data seq=9 epoch=1 from=10.0.0.2 to=239.1.1.2:7600 {(x:11:0000002a)}{<[y]>(sub:11:0000002a)}",
        ]), [
            {"time": "2023-11-14T22:13:20.250000000Z", **place, "sequence": 7, "subject": "A.B", "reply": "_INBOX.1",
             "fields": [x, {"name": "sub", "type": "string", "value": "mine"}]},
            {"time": "2023-11-14T22:13:21.500000000Z", **place, "sequence": 8, "subject": "A.C", "fields": [x]},
            {"time": "2023-11-14T22:13:21.500000000Z", "port": 7600, "group": "239.1.1.2", "sender": "10.0.0.2",
             "scid": None, "sequence": 9, "fields": [x]},
            {"time": "2023-11-14T22:13:21.500000000Z", "port": 7600, "group": "239.1.1.2", "sender": "10.0.0.2",
             "scid": None, "sequence": 9, "subject": "[y]", "fields": [{**x, "name": "sub"}]},
        ])

    def test_options_choose_messages(self):
        lines = ["data seq=1 {<A.B>(x:11:00000001)(y:8:\"ab\"00)}{<A.B.C>}", "data seq=1 {<A.B>(x:11:00000001)}",
                 "data seq=2 {<C>}{}", "data seq=1 from=10.0.0.1:7002 {<A.D>}", "data seq=1 from=10.0.0.2 {<A.B>}",
                 "ptp seq=5 from=10.0.0.2 to=10.0.0.9 *40"]
        for options, wanted in (
                ((), ["A.B", "A.B.C", "C", None, "A.D", "A.B"]),
                (("--subject", "A.*"), ["A.B", "A.D", "A.B"]), (("--subject", "A.>"), ["A.B", "A.B.C", "A.D", "A.B"]),
                (("--subject", "C", "--subject", "*.D"), ["C", "A.D"]), (("--subject", ">"), ["A.B", "A.B.C", "C", "A.D", "A.B"]),
                (("--sender", "10.0.0.2"), ["A.B"]), (("--sender", "10.0.0.1:7002"), ["A.D"]), (("--sender", "10.0.0.3"), []),
                (("--count", "2"), ["A.B", "A.B.C"]), (("--repeats", "--count", "4"), ["A.B", "A.B.C", "A.B", "C"]),
                (("--sender", "10.0.0.2", "--point-to-point"), ["A.B", 40]),
                (("--subject", "A.*", "--sender", "10.0.0.2", "--point-to-point"), ["A.B"])):
            with self.subTest(options):
                self.assertEqual([row.get("subject", row.get("point_to_point_bytes")) for row in self.read(lines, *options)], wanted)
        self.assertEqual([row.get("repeated") for row in self.read(lines, "--repeats", "--subject", "A.B")], [None, True, None])
        first = self.read(lines, "--fields", "y,none")[0]
        self.assertEqual(first["fields"], [{"name": "y", "type": "string", "value": "ab"}])
        text = run(WATCH, "messages", "-r", self.folder / "packets", "--text", "--point-to-point", "--fields", "x").stdout.decode()
        self.assertEqual([line.partition("Z ")[2] for line in text.splitlines()], [
            "7500 239.1.1.1 10.0.0.1:7001 1 A.B {x=1}", "7500 239.1.1.1 10.0.0.1:7001 1 A.B.C {}",
            "7500 239.1.1.1 10.0.0.1:7001 2 C {}", "7500 239.1.1.1 10.0.0.1:7001 2 - {}",
            "7500 239.1.1.1 10.0.0.1:7002 1 A.D {}", "7500 239.1.1.1 10.0.0.2:7001 1 A.B {}",
            "7500 10.0.0.9 10.0.0.2:7001 5 (point to point, 40 bytes)"])
        for option, value in (("--subject", "A..B"), ("--sender", "10.0.0"), ("--sender", "10.0.0.1:0"), ("--fields", ","), ("--count", "0")):
            self.assertEqual(run(WATCH, "messages", "-r", self.folder / "packets", option, value).returncode, 2, option)

    def test_a_message_runs_on_into_the_next_packets_of_its_sender(self):
        size = len(LONG)
        other = "data seq=%d from=10.0.0.2 {<OTHER>}"
        whole = [part(5, 1, 0, 1000), other % 1, part(6, 2, 1000, 2000), "data seq=9 to=239.1.1.2 {<OTHER>}", part(7, 3, 2000)]

        def missing(held, seq, reason="part_missing"):
            return {"incomplete": reason, "bytes": held, "message_bytes": size, "sequence": seq}

        def rest(held, seq):
            return {"incomplete": "part_missing", "bytes": held, "sequence": seq}

        done = {"subject": "LONG", "sequence": 7}
        after = {"subject": "B", "sequence": 8}
        for name, lines, wanted in (
                ("whole", whole, [done]),
                ("with one before it", ["data seq=5 fragment=1 {<B>}" + LONG[:1000].hex(), *whole[1:]], [{"subject": "B", "sequence": 5}, done]),
                ("middle missing", [whole[0], whole[4], "data seq=8 {<B>}"], [missing(1000, 5), rest(size - 2000, 7), after]),
                ("begin missing", whole[2:], [rest(1000, 6), rest(size - 2000, 7)]),
                ("end missing", [*whole[:3], "data seq=8 {<B>}"], [missing(2000, 6), after]),
                ("end of the capture", whole[:3], [missing(2000, 6)]),
                ("a null says that more was sent", [*whole[:3], "null seq=7 r=1", whole[4]], [missing(2000, 6)]),
                ("a null says nothing new", [*whole[:3], "null seq=6 r=1", whole[4]], [done]),
                ("repeats between", [*whole[:3], whole[2], whole[0], whole[4]], [done]),
                ("another life of the sender", [*whole[:3], "data seq=7 epoch=80000002 {<B>}"], [missing(2000, 6), {**after, "sequence": 7}]),
                ("cut by the capture", [whole[0], part(6, 2, 1000, 2000, " cut=500"), whole[4]],
                 [missing(1000 + 440, 6, "cut_by_the_capture"), rest(size - 2000, 7)]),
                ("cut within its header", ["data seq=7 {<B>} cut=56"], [{"incomplete": "cut_by_the_capture", "bytes": 0, "sequence": 7}]),
                ("cut after a message", ["data seq=7 {<B>}{<C>} cut=%d" % (60 + len(packets.Payload("{<B>}").parts()))],
                 [{**after, "sequence": 7}, {"incomplete": "cut_by_the_capture", "bytes": 0, "sequence": 7}]),
                ("longer than its packet", ["data seq=7 " + LONG[:100].hex()], [missing(100, 7, "longer_than_its_packet")]),
                ("larger than any", ["data seq=7 fragment=1 ffffffff9955eeaa00"],
                 [{"incomplete": "waited_too_long", "bytes": 9, "message_bytes": 2 ** 32 - 1, "sequence": 7}]),
                ("no message", ["data seq=7 {<B>}0000000c9955eeab00000000", "data seq=8 fragment=0 {<B>}"],
                 [{**after, "sequence": 7}, {"incomplete": "no_message", "bytes": 12, "sequence": 7}, after])):
            with self.subTest(name):
                found = [row for row in self.read(lines) if row.get("subject") != "OTHER"]
                self.assertEqual([{key: row[key] for key in row if key in (
                    "subject", "sequence", "incomplete", "bytes", "message_bytes")} for row in found], wanted)

    def test_subjects_and_values_may_have_any_bytes(self):
        rows = self.read(messages(HOSTILE_SUBJECTS))
        self.assertEqual([raw(row["subject"]) for row in rows],
                         [b".".join(element.split(b"\0")[0] for element in subject) for subject in HOSTILE_SUBJECTS])
        texts = [bytes(range(256)), "äß→😀\u2028\x7f".encode(), b'eightish"', b'seven\\\n', b"eight678\x80", b"\xed\xa0\x80" * 5, b"a" * 300]
        fields = "".join("{<A>%s%s}" % (packets.field("", 8, text + b"\0").hex(), packets.field("o", 7, text).hex()) for text in texts)
        rows = self.read(["data " + fields])
        self.assertEqual([(raw(row["fields"][0]["value"]), bytes.fromhex(row["fields"][1]["value"])) for row in rows],
                         [(text, text) for text in texts])
        # What doesn't decode is shown as bytes, a subject among them; a message that falls apart has none.
        rows = self.read(["data {(sub:2:0102)(x:12:010203)(own:200:beef)(d:3:%s)(e:3:%s)}{<A>04}" % DATES])
        self.assertEqual([(field["name"], field["type"], field["value"]) for field in rows[0]["fields"]],
                         [("sub", "2", "0102"), ("x", "12", "010203"), ("own", "200", "beef"),
                          ("d", "datetime", "1970-01-01 00:00:01.999999000Z"), ("e", "3", DATES[1])])
        self.assertIn("corrupt", rows[1]["fault"])
        text = run(WATCH, "messages", "--text", "-r", self.folder / "packets").stdout
        self.assertIn(b" - {sub=[NO DECODER AVAILABLE] x=[NO DECODER AVAILABLE] own=", text)
        self.assertEqual(text.count(b"\n"), 2)

    def test_a_mix_is_shown_whole(self):
        capture = self.generate("mix.pcap", *MIX, "--fragments", "0.05")
        text = run(WATCH, "messages", "--repeats", "--point-to-point", "-r", capture).stdout
        rows = self.sound_lines(text, "pelmo-messages")
        self.assertGreater(sum("fields" in row for row in rows), 5000)
        for some in ("repeated", "incomplete", "point_to_point_bytes"):
            self.assertTrue(any(some in row for row in rows), some)
        self.assertEqual(run(WATCH, "messages", "--text", "--repeats", "--point-to-point", "-r", capture).stdout.count(b"\n"), len(rows))


if __name__ == "__main__":
    main()
