"""The dissector against pelmowatch messages, by the real tshark.

Both read the same captures: as many messages of each subject, and every field's type and value the same. Damaged
captures give no Lua error.
"""

import collections
import json
import pathlib
import shutil
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ROOT, ProgramCase, binary, main, run  # noqa: E402

MIX = "--mix --count 4000 --fragments 0.01 --payload 100-1400".split()
LUA = "lua_script:%s" % (ROOT / "share/wireshark/pelmo.lua")
FIELD, RECORD = "\x1f", "\x1e"
REALS = ("f32", "f64", "f32[]", "f64[]")


def leaves(fields):
    """(type, value) of all fields, those of nested messages too."""
    for field in fields:
        kind, value = field["type"], field["value"]
        if isinstance(value, dict):
            yield from leaves(value["fields"])
        elif kind == "msg[]":
            for message in value:
                yield from leaves(message["fields"])
        else:
            yield kind, value


def as_shown(kind, value):
    """A JSON value in a form that the text of the dissector comes to as well."""
    if kind in REALS:
        return repr([float(each) for each in (value if isinstance(value, list) else [value])])
    return value if isinstance(value, str) else json.dumps(value, separators=(",", ":"), ensure_ascii=False)


def as_printed(kind, text):
    return repr([float(each) for each in text.strip("[]").split(",") if each]) if kind in REALS else text


def tshark(*arguments):
    return run("tshark", "-X", LUA, *arguments, text=True).stdout


class Wireshark(ProgramCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.mix = cls.generate("mix.pcap", *MIX)

    def test_subjects_types_and_values_are_those_of_messages(self):
        for capture in (self.mix, ROOT / "samples/bus.pcap"):
            done = run(binary("pelmowatch"), "messages", "--repeats", "-r", capture)
            messages = [json.loads(line) for line in done.stdout.splitlines()]
            wanted = collections.Counter(("subject", message["subject"]) for message in messages if "subject" in message)
            wanted.update((kind, as_shown(kind, value)) for message in messages
                          for kind, value in leaves(message.get("fields", ())))
            text = tshark("-r", capture, "-T", "fields", "-e", "pelmo.subject", "-e", "pelmo.field.type",
                          "-e", "pelmo.field.value", "-E", "aggregator=" + FIELD, "-E", "separator=" + RECORD)
            found = collections.Counter()
            for line in text.split("\n")[:-1]:
                subjects, kinds, values = (part.split(FIELD) for part in line.split(RECORD))
                found.update(("subject", subject) for subject in subjects if subject)
                kinds = [kind for kind in kinds if kind and kind not in ("msg", "msg[]")]
                found.update((kind, as_printed(kind, value)) for kind, value in zip(kinds, values))
            self.assertGreater(len(wanted), 100)
            self.assertEqual(found, wanted, capture)
        types = tshark("-r", self.mix, "-T", "fields", "-e", "pelmo.type").split()
        self.assertLessEqual(set("13456789"), set(types))

    def test_damaged_captures_give_no_error_of_the_dissector(self):
        damaged = self.folder / "damaged.pcap"
        for options in (("--seed", "1", "-E", "0.01"), ("--seed", "2", "-E", "0.1"), ("-s", "100")):
            self.assertEqual(run("editcap", *options, self.mix, damaged).returncode, 0)
            self.assertNotIn("Lua Error", tshark("-2", "-V", "-r", damaged))
        date = "0000000100418938"  # of more microseconds than a second has
        self.assertEqual(tshark("-r", self.capture_of("date.pcap", "data {(d:3:%s)}" % date), "-T", "fields",
                                "-e", "pelmo.field.value").strip(), date)


if __name__ == "__main__":
    if shutil.which("tshark") is None or shutil.which("editcap") is None:
        print("skipped: tshark isn't installed (scripts/setup.sh --all)")
        sys.exit(77)
    main()
