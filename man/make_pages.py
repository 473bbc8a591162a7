#!/usr/bin/env python3
"""Makes the manual pages: make_pages.py VERSION FOLDER

The source of a page is man/NAME.SECTION.md, in Markdown. A line "<!-- document docs/events.md -->" is replaced by that
document, without its title and table of contents. The pages of section 3 are generated from kservice.h, see
header_pages.py. lowdown(1) converts all of them to man(7), and clean_up() improves its output. The date on the pages is
the version's in CHANGELOG.md.
"""

import re
import shutil
import subprocess
import sys
from pathlib import Path
from textwrap import indent

import header_pages

TREE = Path(__file__).resolve().parent.parent
WIDTH = 71  # columns of text on a terminal of 80
CODE_INDENT = WIDTH - header_pages.CODE_WIDTH
PAGES = {  # the documents that are pages, or part of one
    "commands.md": "**vexprod-commands**(7)",
    "events.md": "**vexprod-events**(7)",
    "operations.md": "**vexprod**(8)",
    "protocol.md": "**ks-protocol**(7)",
}


def substitute(pattern, replacement, text):
    return re.sub(pattern, replacement, text, flags=re.MULTILINE)


def without_title_and_contents(text):
    text = re.sub(r"\A# .*\n+", "", text)
    return substitute(r"(^- \[[^]]*\]\(#[^)]*\)\n)+\n", "", text)


def label_examples(text):
    """In commands.md only the fences tell an example's request from its reply."""
    return substitute(r"^(?=```json (request|reply)$)", r"Example's \1:\n\n", text)


def refer_to_pages(text):
    """Replaces links by their text, and the names of documents by those of their pages."""

    def link(match):
        words, target = match.groups()
        page = PAGES.get(Path(target.split("#")[0]).name)
        if page is None:
            return words
        return page if words.endswith(".md") else f"{words}, see {page}"

    text = re.sub(r"\[([^]\n]+)\]\(([^)\n]+)\)", link, text)
    return re.sub(r"`?docs/(\w+\.md)`?", lambda match: PAGES.get(match[1], match[0]), text)


def fold(line):
    """Breaks a line of code that is too long: between JSON members, at a blank, or else at the width's end."""
    lines = []
    room = header_pages.CODE_WIDTH
    while len(line) > room:
        cut = line.rfind(',"', 3, room) + 1 or max(line.rfind(" ", 3, room), 0) or room
        lines.append(line[:cut].rstrip())
        line = "  " + line[cut:].lstrip()
    return "\n".join([*lines, line])


def literal(roff):
    """Hyphens and quotes stay ASCII, so that the text can be pasted."""
    return roff.replace("-", r"\-").replace("'", r"\(aq")


def clean_up(roff):
    # No hyphenation (which .EE turns on again) and no justification: most long words are names.
    roff = substitute(r"^(\.TH .*) \"\"$", r"\1\n.nh\n.ad l", roff)
    synopsis, description = substitute(r"^\.EE$", ".EE\n.nh", roff).split("\nDESCRIPTION\n")
    description = substitute(r"^\.EX$", f".RS {CODE_INDENT}\n.EX", description)
    roff = f"{synopsis}\nDESCRIPTION\n" + substitute(r"^\.EE\n\.nh$", ".EE\n.nh\n.RE", description)
    roff = substitute(r"^\.(SH|SS)\n(.*)\n(?:\.LP\n)?", heading, roff)
    roff = substitute(r"\\f[BC]([\s\S]*?)\\fR", bold, roff)
    roff = substitute(r"(?<=^\.EX\n)([\s\S]*?)(?=^\.EE$)", lambda m: literal(m[1]), roff)
    # Definition lists, and list items without a blank line between them.
    closer = r"\.if n \\\n\.sp -1v?\n\.if t \\\n\.sp -0\.25v\n"
    roff = substitute(rf"^(?:\.LP\n)?(.+)\n{closer}\.IP \"\" 5n$", r".TP\n\1", roff)
    roff = substitute(rf"^{closer}(\.IP .*)$", r".PD 0\n\1\n.PD", roff)
    roff = substitute(r"^\.TS\n.*\n.*\n(.*)\.\n((?:.*\n)*?)\.TE$", table, roff)
    # whatis(1) looks for this dash.
    roff = substitute(r"(?<=^\.SH NAME\n)([\w, -]*) - ", r"\1 \\- ", roff)
    return re.sub(r"[^\x00-\x7F]", lambda m: rf"\[u{ord(m[0]):04X}]", roff)


def bold(match):
    """Bold text and inline code. Long JSON may break after a comma."""
    return r"\fB" + re.sub(r",(?=\S)", r",\\:", literal(match[1])) + r"\fR"


def heading(match):
    """Section headings are in upper case, except for names. No paragraph macro is needed after a heading."""
    macro, words = match.groups()
    if macro == "SH":
        words = "".join(part if part.startswith(r"\fC") else part.upper() for part in re.split(r"(\\fC.*?\\fR)", words))
    return f".{macro} {words}\n"


def table(match):
    """A table without boxes. Narrow columns are as wide as their widest cell, the others share the remaining width."""
    count = len(match[1].split())
    cells = [text.strip() for text in re.findall(r"T\{\n(.*?)T\}", match[2], re.DOTALL)]
    rows = [cells[n : n + count] for n in range(0, len(cells), count)]
    shown = [re.sub(r"\\f.|\\:|\\(?=-)|\\\(.(?=.)", "", text) for text in cells]
    needed = [max(map(len, shown[n::count])) for n in range(count)]
    longest = [max(len(word) for text in shown[n::count] for word in [*text.split(), ""]) for n in range(count)]
    room = WIDTH - 3 * (count - 1)
    widths = {}
    order = sorted(range(count), key=lambda n: needed[n])
    for done, n in enumerate(order):
        share = min(room // (count - done), room - sum(longest[later] for later in order[done + 1 :]))
        widths[n] = min(needed[n], max(share, longest[n]))
        room -= widths[n]
    wraps = {n for n in range(count) if widths[n] < needed[n]}
    formats = " ".join(f"lw({widths[n]}n)" if n in wraps else "l" for n in range(count))
    lines = ["|".join(f"T{{\n{text}\nT}}" if n in wraps else text for n, text in enumerate(row)) for row in rows]
    heads = formats.replace("l", "lb")
    return "\n".join([".TS", "tab(|);", heads, formats + ".", *lines, ".TE"])


def fold_code(markdown):
    """Folds fenced and indented code blocks."""
    blocks = re.split(r"(^```[\s\S]*?^```$)", markdown, flags=re.MULTILINE)
    blocks[1::2] = ["\n".join(map(fold, block.split("\n"))) for block in blocks[1::2]]
    blocks[::2] = [substitute(r"^    (.*)", lambda m: indent(fold(m[1]), "    "), text) for text in blocks[::2]]
    return "".join(blocks)


def make(markdown, name, section, version, date):
    metadata = {
        "title": name.upper(),
        "section": section,
        "date": date,
        "source": f"vexprod {version}",
        "shiftheadinglevelby": "-1",
    }
    command = ["lowdown", "-s", "-Tman", "--nroff-nolinks", "--out-no-smarty"]
    command += ["--parse-no-metadata", "--parse-no-intraemph", "--parse-no-autolink", "--parse-no-super"]
    command += [word for key, value in metadata.items() for word in ("-M", f"{key}={value}")]
    text = fold_code(label_examples(refer_to_pages(markdown)))
    return clean_up(subprocess.run(command, input=text, stdout=subprocess.PIPE, text=True, check=True).stdout)


def main(version, folder):
    released = re.search(rf"^## \[{re.escape(version)}\] - (\S+)$", (TREE / "CHANGELOG.md").read_text(), re.MULTILINE)
    if not released:
        raise SystemExit(f"CHANGELOG.md has no entry for version {version}")
    shutil.rmtree(folder, ignore_errors=True)

    def write(name, section, markdown):
        path = Path(folder) / f"man{section}" / f"{name}.{section}"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(make(markdown, name, section, version, released[1]))
        return path

    for page in header_pages.read(TREE / "framework/kservice.h"):
        path = write(page.name, "3", page.markdown)
        for function in set(page.functions) - {page.name}:
            path.with_name(f"{function}.3").symlink_to(path.name)
    for source in TREE.glob("man/*.md"):
        name, section, _ = source.name.rsplit(".", 2)
        document = re.compile(r"^<!-- document (\S+) -->$", re.MULTILINE)
        taken_in = document.sub(
            lambda match: without_title_and_contents((TREE / match[1]).read_text()), source.read_text()
        )
        write(name, section, taken_in)


if __name__ == "__main__":
    main(*sys.argv[1:])
