#!/usr/bin/env python3
"""bundle.py ESBUILD MODULES OUT: builds the pages.

Scripts and styles are bundled by ESBUILD with the packages of the folder MODULES. OUT gets
`assets.cc`, the bytes behind assets.h, and the same as files: `site/`, which a server may serve,
and `report.html`, whose line @REPORT_DATA@ stands for the data.
"""
import base64
import hashlib
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
PLACEHOLDER = "@REPORT_DATA@"

# Path of the request, file under site/, content type.
SITE = [("/", "index.html", "text/html; charset=utf-8"),
        ("/page.js", "page.js", "text/javascript; charset=utf-8"),
        ("/worker.js", "worker.js", "text/javascript; charset=utf-8"),
        ("/page.css", "page.css", "text/css; charset=utf-8")]

ASSETS_CC = """\
// Made by watch/web/bundle.py.
#include "watch/web/assets.h"

namespace {{

{arrays}

constexpr WebAsset kAssets[] = {{
{rows}
}};

}}  // namespace

std::span<const WebAsset> webAssets() {{
    return kAssets;
}}

WebReportFrame webReportFrame() {{
    return {{.head = {{kReportHead, sizeof kReportHead}}, .tail = {{kReportTail, sizeof kReportTail}}}};
}}
"""


def read(*names):
    with open(os.path.join(HERE, *names), encoding="utf-8") as f:
        return f.read()


def bundle(esbuild, modules, source):
    """One script or style sheet with all that it imports, for browsers that are in use."""
    environment = {**os.environ, "NODE_PATH": modules}
    target = "--target=chrome110,firefox115,safari16"
    command = [esbuild, os.path.join(HERE, source), "--bundle", "--minify", "--charset=utf8",
               "--format=iife", "--log-level=warning", target]
    if source.endswith(".css"):
        command.remove("--format=iife")
    return subprocess.run(command, env=environment, check=True, stdout=subprocess.PIPE).stdout.decode()


def csp_hash(text):
    return "'sha256-%s'" % base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()


def fill(template, values):
    """Each @NAME@ of the template once; a name in a value isn't looked at."""
    at = 0
    out = []
    for name, value in values:
        found = template.index("@%s@" % name, at)
        out += [template[at:found], value]
        at = found + len(name) + 2
    return "".join(out + [template[at:]])


def report_page(script, style):
    for text, end in ((script, "</script"), (style, "</style")):
        if end in text:
            sys.exit("a bundle holds " + end)
    return fill(read("report", "report.html"),
                [("SCRIPT_HASH", csp_hash(script)), ("STYLE_HASH", csp_hash(style)),
                 ("STYLE", style), ("SCRIPT", script)])


def c_array(name, text):
    data = [byte - 256 if byte > 127 else byte for byte in text.encode()]
    lines = [",".join(map(str, data[i:i + 32])) for i in range(0, len(data), 32)]
    return "constexpr char %s[] = {\n%s};" % (name, ",\n".join(lines))


def assets_cc(files, report):
    head, tail = report.split(PLACEHOLDER)
    arrays = [c_array("kReportHead", head), c_array("kReportTail", tail)]
    rows = []
    for number, (path, name, content_type) in enumerate(SITE):
        arrays.append(c_array("kBody%d" % number, files[name]))
        rows.append('    {"%s", "%s", {kBody%d, sizeof kBody%d}},' % (path, content_type, number, number))
    return ASSETS_CC.format(arrays="\n".join(arrays), rows="\n".join(rows))


def write(text, *names):
    path = os.path.join(*names)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


def main():
    esbuild, modules, out = sys.argv[1:]
    files = {"index.html": read("live", "page.html"),
             "page.js": bundle(esbuild, modules, "live/main.js"),
             "worker.js": bundle(esbuild, modules, "live/worker.js"),
             "page.css": bundle(esbuild, modules, "live/page.css")}
    report = report_page(bundle(esbuild, modules, "report/main.js"),
                         bundle(esbuild, modules, "report/report.css"))
    for name, text in files.items():
        write(text, out, "site", name)
    write(report, out, "report.html")
    write(assets_cc(files, report), out, "assets.cc")


if __name__ == "__main__":
    main()
