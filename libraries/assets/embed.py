#!/usr/bin/env python3
"""Turns files into constants of C++.

    embed.py OUTPUT.cpp NAME=FILE...      one text each; a folder becomes a table of its .js files

    embed.py --page OUTPUT.html TEMPLATE.html STYLE.css SCRIPT.js
                                          the page with its style and script in it
"""
import pathlib
import sys

HEAD = """// A file is one literal, longer than what every compiler has to take.
#pragma GCC diagnostic ignored "-Woverlength-strings"
"""

# What may stand in a string literal as it is; all other bytes become three octal digits, which, unlike
# hexadecimal ones, end before whatever follows. A question mark could begin a trigraph.
PLAIN = set(range(0x20, 0x7F)) - set(b'"\\?')


def literal(data):
    lines = []
    for line in data.splitlines(keepends=True):
        lines += [line[at:at + 4000] for at in range(0, len(line), 4000)]
    quoted = ("".join(chr(byte) if byte in PLAIN else f"\\{byte:03o}" for byte in line) for line in lines)
    return "\n".join(f'    "{line}"' for line in quoted) or '    ""'


def view(data):
    return f"std::string_view{{\n{literal(data)},\n    {len(data)}}}"


def table(name, folder):
    files = {path.relative_to(folder).as_posix(): path for path in folder.rglob("*.js")}
    rows = (f'    Asset{{"{path}", {view(files[path].read_bytes())}}},' for path in sorted(files))
    return ("namespace {\nconstexpr Asset " + name + "_rows[] = {\n" + "\n".join(rows) + "\n};\n}\n"
            f"constinit std::span<Asset const> const {name}{{{name}_rows}};\n")


def constant(name, source):
    source = pathlib.Path(source)
    if source.is_dir():
        return table(name, source)
    return f"constinit std::string_view const {name} = {view(source.read_bytes())};\n"


def page(template, style, script):
    parts = {"/* style */": style, "/* script */": script}
    text = pathlib.Path(template).read_text()
    for marker, source in parts.items():
        before, found, after = text.partition(marker)
        assert found, f"{template} has no {marker}"
        text = before + pathlib.Path(source).read_text().strip() + after
    return text


def main(arguments):
    if arguments[0] == "--page":
        pathlib.Path(arguments[1]).write_text(page(*arguments[2:]))
        return
    constants = [constant(*argument.split("=", 1)) for argument in arguments[1:]]
    pathlib.Path(arguments[0]).write_text(
        HEAD + '#include "libraries/assets/assets.hpp"\n\nnamespace mirelclient {\n\n' + "\n".join(constants)
        + "\n} // namespace mirelclient\n")


main(sys.argv[1:])
