#!/usr/bin/env python3
"""doxygen_filter.py HEADER: prints a public header with its comments as Doxygen wants them, so that the
headers themselves carry no marks.

The comment at the top, and any other that a blank line follows, is about the file. One before a declaration
is about it, and about those that follow it without a blank line. One after a declaration is about that.
"""
import re
import sys


def blocks(lines):
    """Runs of lines without a blank one between them."""
    block = []
    for line in lines:
        if line.strip():
            block.append(line)
        elif block:
            yield block
            block = []
    if block:
        yield block


def marked(comment):
    return [line.replace("//", "///", 1) for line in comment]


def with_members(line):
    """A comment after a declaration."""
    return re.sub(r"([;,{(]|\w)  +// ", r"\1  ///< ", line) if not line.lstrip().startswith("//") else line


def declarations(code):
    """How many there are, none of them within braces."""
    text = re.sub(r"//.*", "", "\n".join(code))
    return 0 if "{" in text or "#" in text else text.count(";")


def filtered(block):
    comment = []
    while len(comment) < len(block) and block[len(comment)].lstrip().startswith("//"):
        comment.append(block[len(comment)])
    code = [with_members(line) for line in block[len(comment):]]
    for at, line in enumerate(code):
        if line.lstrip().startswith("//"):
            code[at] = line.replace("//", "///", 1)
    if not comment:
        return code
    if not code:
        return ["/// \\file"] + marked(comment)
    if declarations(code) > 1:
        return ["///@{"] + marked(comment) + code + ["///@}"]
    return marked(comment) + code


def main():
    with open(sys.argv[1], encoding="utf-8") as header:
        lines = header.read().splitlines()
    print("\n\n".join("\n".join(filtered(block)) for block in blocks(lines)))


if __name__ == "__main__":
    main()
