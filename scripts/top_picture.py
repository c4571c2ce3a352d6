#!/usr/bin/env python3
"""top_picture.py PELMOWATCH [FILE]: draws the README's picture of pelmowatch top, an SVG, into the file or
onto the standard output.

The screen is that of a sample capture, run in tmux, which is asked for the text and its attributes. The
picture has all of the text as text, line by line, so that a test can hold it against a fresh run.
"""
import html
import os
import re
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree

COLUMNS, LINES = 80, 24
CELL_WIDTH, LINE_HEIGHT, MARGIN, FONT_SIZE = 8.4, 19, 16, 14
CAPTURE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "samples", "bus.pcap")
OPTIONS = ("-r", CAPTURE, "-u", "1", "--speed", "1000")
AT_END = "end of file"
KEYS = (("Enter", "▾"), ("Down", ""), ("Down", ""), ("Down", ""))  # each with what then is on the screen
PATIENCE_SECONDS = 20
SGR = re.compile(r"\x1b\[([\d;]*)m|\x1b\(B|\x0f|\x0e")
STYLE = """
    text { font: %dpx ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace; white-space: pre; }
    .back { fill: #15181d; stroke: #3a4049; } .plain { fill: #c9d1d9; } .bar { fill: #c9d1d9; }
    .bold { fill: #f2f5f8; font-weight: 600; } .dim { fill: #717a86; } .red { fill: #ff7b72; }
    .reverse { fill: #15181d; } .rule { stroke: #717a86; }
    @media (prefers-color-scheme: light) {
      .back { fill: #ffffff; stroke: #d0d7de; } .plain { fill: #24292f; } .bar { fill: #24292f; }
      .bold { fill: #000000; } .dim { fill: #8c959f; } .red { fill: #cf222e; }
      .reverse { fill: #ffffff; } .rule { stroke: #8c959f; }
    }
""" % FONT_SIZE


def capture(watch):
    """The screen as tmux reports it: lines of text with SGR sequences."""
    with tempfile.TemporaryDirectory() as folder:
        tmux = ["tmux", "-S", folder + "/tmux", "-f", "/dev/null"]
        environment = {**os.environ, "TZ": "UTC", "LC_ALL": "C.UTF-8"}
        environment.pop("NO_COLOR", None)

        def tmux_output(*command):
            return subprocess.run([*tmux, *command], check=True, capture_output=True, text=True,
                                  env=environment).stdout

        def wait_for(text):
            deadline = time.monotonic() + PATIENCE_SECONDS
            while text not in tmux_output("capture-pane", "-p"):
                if time.monotonic() > deadline:
                    sys.exit("no %r on the screen:\n%s" % (text, tmux_output("capture-pane", "-p")))
                time.sleep(0.05)

        tmux_output("new-session", "-d", "-x", str(COLUMNS), "-y", str(LINES), "env", "TERM=screen-256color",
             os.path.abspath(watch), "top", *OPTIONS)
        try:
            wait_for(AT_END)
            for key, text in KEYS:
                tmux_output("send-keys", key)
                wait_for(text)
            time.sleep(0.3)
            return tmux_output("capture-pane", "-e", "-N", "-p").split("\n")[:LINES]
        finally:
            tmux_output("kill-server")


def pieces(line, attributes):
    """Yields the text of a line with its attributes, which go on over the ends of lines."""
    at = 0
    for match in SGR.finditer(line):
        if match.start() > at:
            yield line[at:match.start()], frozenset(attributes)
        at = match.end()
        for code in (match[1] or "0").split(";") if match[1] is not None else ():
            code = int(code or 0)
            if code == 0:
                attributes.clear()
            elif code in (1, 2, 4, 7, 31):
                attributes.add({1: "bold", 2: "dim", 4: "underline", 7: "reverse", 31: "red"}[code])
            elif code == 39:
                attributes.discard("red")
            elif code != 49:
                sys.exit("an attribute that the picture doesn't know: %d" % code)
    if at < len(line):
        yield line[at:], frozenset(attributes)


def class_of(attributes):
    for name in ("reverse", "red", "bold", "dim"):
        if name in attributes:
            return name
    return "plain"


def picture(lines):
    width, height = 2 * MARGIN + COLUMNS * CELL_WIDTH, 2 * MARGIN + LINES * LINE_HEIGHT
    out = ['<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 %g %g" width="%g" height="%g">' %
           (width, height, width, height), "  <title>pelmowatch top</title>", "  <style>%s  </style>" % STYLE,
           '  <rect class="back" x="0.5" y="0.5" width="%g" height="%g" rx="8"/>' % (width - 1, height - 1)]
    attributes = set()
    for number, line in enumerate(lines):
        top, column, texts = MARGIN + number * LINE_HEIGHT, 0, []
        for text, which in pieces(line, attributes):
            x, columns = MARGIN + column * CELL_WIDTH, len(text) * CELL_WIDTH
            if "reverse" in which:
                out.append('  <rect class="bar" x="%g" y="%g" width="%g" height="%g"/>' %
                           (x, top, columns, LINE_HEIGHT))
            if "underline" in which:
                out.append('  <path class="rule" d="M%g %gh%g"/>' % (x, top + LINE_HEIGHT - 1.5, columns))
            texts.append('<tspan class="%s" x="%g" textLength="%g">%s</tspan>' %
                         (class_of(which), x, columns, html.escape(text)))
            column += len(text)
        if texts:
            out.append('  <text y="%g" xml:space="preserve">%s</text>' %
                       (top + LINE_HEIGHT - 5, "".join(texts)))
    return "\n".join([*out, "</svg>", ""])


def text_of(svg):
    """The text of a picture, line by line."""
    return ["".join(text.itertext()).rstrip()
            for text in xml.etree.ElementTree.fromstring(svg).iter("{http://www.w3.org/2000/svg}text")]


def main():
    svg = picture(capture(sys.argv[1]))
    if len(sys.argv) > 2:
        with open(sys.argv[2], "w", encoding="utf-8") as f:
            f.write(svg)
    else:
        sys.stdout.write(svg)


if __name__ == "__main__":
    main()
