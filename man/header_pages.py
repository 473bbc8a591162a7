"""The pages of section 3, as Markdown, from the comments of kservice.h.

The comment at the top of the header becomes libkservice(3). Each section, which starts with a line
"/* ---- Title: page(3) ---- */", becomes a page with a heading for each function and record and lists of constants.
A declaration without a comment belongs to the one directly above it; if there is none, that is an error.
"""

import re
from dataclasses import dataclass

CODE_WIDTH = 67  # columns, so that code may be indented on a terminal of 80
PART = re.compile(r"^/\* -+ (.+): (\w+)\(3\) -+ \*/$", re.MULTILINE)
TOKEN = re.compile(
    r"/\*\*(?P<comment>.*?)\*/"
    r"|/\*(?P<note>.*?)\*/"
    r"|#define (?P<define>(?:[^\n]*\\\n)*[^\n]*)"
    r"|(?P<declaration>\w[^;{]*(?:\{(?:[^\n]*\}|.*?^\})[^;{]*)?;)",
    re.DOTALL | re.MULTILINE,
)
MEMBER = re.compile(r"\s*(?P<member>union \{.*?\} \w+;|[^;]+;)[ \t]*(?:/\*\*<(?P<comment>.*?)\*/)?", re.DOTALL)
ENUMERATOR = re.compile(r"(?P<name>\w+) = (?P<value>\w+)\s*,?\s*(?:/\*\*<(?P<comment>.*?)\*/)?", re.DOTALL)


@dataclass
class Page:
    name: str
    functions: list  # described there
    markdown: str


def text_of(comment):
    """A comment's text, without the asterisks."""
    return re.sub(r"^\s*\* ?", "", comment, flags=re.MULTILINE).strip()


def prose(text):
    """A comment's text as Markdown. Its only markup is `code` and indented code blocks; the rest is escaped."""

    def words(line):
        if line.startswith("    "):
            return line
        parts = re.split(r"(`\w+`)", line.strip())
        for n in range(0, len(parts), 2):
            part = re.sub(r"([\\`*_<>\[\]#])", r"\\\1", parts[n])
            parts[n] = re.sub(r"([\w\\-]+)(?=\(\d?\))", r"**\1**", part)
        return "".join(parts)

    return "\n".join(map(words, text.split("\n")))


def described(text):
    """A function's comment: its text, then a list of parameters and the result."""
    text, *tags = re.split(r"@(?=param|return)", text)
    items = []
    for tag in tags:
        kind, rest = tag.split(None, 1)
        name, rest = rest.split(None, 1) if kind == "param" else ("", rest)
        items.append((f"*{name}*" if name else "Returns", prose(" ".join(rest.split()))))
    return prose(text.strip()) + definitions(items)


def definitions(items):
    return "".join(f"\n\n{term}\n: " + text.replace("\n", "\n  ") for term, text in items)


def declared_name(declaration):
    """Of a function, a variable, or a type."""
    function_type = re.search(r"\(\*(\w+)\)", declaration)
    return (function_type or re.search(r"(\w+)(?:\(.*|\[.*)?;$", declaration, re.DOTALL))[1]


def plain(declaration):
    """The declaration without our macros, broken so that it needs no folding."""
    text = re.sub(r"\bKS_API |\s*KS_PRINTF\([^)]*\)", "", declaration)
    line, *rest = re.split(r"(?<=,) ", re.sub(r"\s+", " ", text))
    indent = " " * (line.index("(") + 1 if rest else 0)
    lines = [line]
    for parameter in rest:
        if len(lines[-1]) + 1 + len(parameter) <= CODE_WIDTH:
            lines[-1] += " " + parameter
        else:
            lines.append(indent + parameter)
    return "\n".join(lines)


def code(text):
    return f"```c\n{text}\n```"


def record(declaration, comment):
    body = re.search(r"\{\n(.*)\n\}", declaration, re.DOTALL)[1]
    members = [(member["member"].strip(), member["comment"]) for member in MEMBER.finditer(body)]
    explained = [(f"`{declared_name(member)}`", prose(text_of(text))) for member, text in members if text]
    fields = "\n".join("    " + member for member, _ in members)
    name = re.match(r"typedef struct (\w+)", declaration)[1]
    return f"### {name}\n\n{prose(comment)}\n\n" + code(f"struct {name} {{\n{fields}\n}};") + definitions(explained)


@dataclass
class Entry:
    kind: str  # "note", "define" or "declaration"
    comment: str
    texts: list  # what the comment describes


def entries(part):
    """A section's entries in order. A note is an ordinary comment before the first one."""
    found = []
    end = 0
    comment = None
    for token in TOKEN.finditer(part):
        kind = token.lastgroup
        text = token[kind]
        if kind == "comment":
            comment = text
            continue
        if kind == "define" and (own := re.search(r"/\*\*<(.*?)\*/", text, re.DOTALL)):
            comment = own[1]
        if comment is not None or (kind == "note" and not found):
            found.append(Entry(kind, text_of(comment or text), [text]))
        elif kind == "declaration" and found and found[-1].kind == kind and "\n\n" not in part[end : token.start()]:
            found[-1].texts.append(text)
        elif kind != "note":
            raise SystemExit(f"kservice.h: no comment: {text}")
        comment = None
        end = token.end()
    return found


def enumeration(declaration, comment):
    values = [(f"`{one['name']}` ({one['value']})", one["comment"]) for one in ENUMERATOR.finditer(declaration)]
    if all(text for _, text in values):
        return prose(comment) + definitions((term, prose(text_of(text))) for term, text in values)
    return definitions((term, prose(comment)) for term, _ in values)


def section(entry):
    """An entry as Markdown."""
    first = entry.texts[0]
    if entry.kind == "note":
        return prose(entry.comment)
    if entry.kind == "define":
        name, value = re.match(r"(\w+) (\w*)", first).groups()
        return definitions([(f"`{name}`" + (f" ({value})" if value else ""), prose(entry.comment))])
    if first.startswith("enum"):
        return enumeration(first, entry.comment)
    if first.startswith("typedef struct"):
        return record(first, entry.comment)
    names = [declared_name(text) + ("()" if text.startswith("KS_API") else "") for text in entry.texts]
    shown = "" if first.startswith("KS_API") else code(plain(first)) + "\n\n"  # functions are in the synopsis
    return f"### {', '.join(names)}\n\n{shown}{described(entry.comment)}"


def page_of(title, name, part, see_also):
    found = entries(part)
    prototypes = [text for entry in found for text in entry.texts if text.startswith("KS_API")]
    functions = [declared_name(text) for text in prototypes]
    synopsis = "\n".join(["#include <kservice.h>", "", *map(plain, prototypes)]).strip()
    return Page(
        name,
        functions,
        f"## NAME\n\n{', '.join(functions) or name} - {title[0].lower() + title[1:]} of libkservice\n\n"
        f"## SYNOPSIS\n\n{code(synopsis)}\n\n"
        "## DESCRIPTION\n\n" + "\n\n".join(map(section, found)) + f"\n\n## SEE ALSO\n\n{see_also}\n",
    )


def read(header):
    """The pages of the header."""
    head, *parts = PART.split(header.read_text())
    parts = list(zip(parts[::3], parts[1::3], parts[2::3]))
    comment = text_of(re.search(r"\A/\*(.*?)\*/", head, re.DOTALL)[1])
    summary, text = prose(comment).split("\n\n", 1)
    summary = summary.removeprefix("kservice: ").rstrip(".")
    others = ["**ksctl**(1)", "**ks-protocol**(7)"]
    pages = [
        Page(
            "libkservice",
            [],
            f"## NAME\n\nlibkservice - {summary}\n\n"
            f"## SYNOPSIS\n\n{code('#include <kservice.h>')}\n\n"
            "`cc` *program.c* ``$(pkg-config --cflags --libs libkservice)``\n\n"
            f"## DESCRIPTION\n\n{text}\n\n## PAGES"
            + definitions((f"**{name}**(3)", title) for title, name, _ in parts)
            + f"\n\n## SEE ALSO\n\n{', '.join(others)}\n",
        )
    ]
    for title, name, part in parts:
        near = [f"**{other}**(3)" for other in ("libkservice", *(other for _, other, _ in parts)) if other != name]
        pages.append(page_of(title, name, part, ", ".join(near + others)))
    return pages
