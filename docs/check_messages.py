"""Holds docs/messages.md to the program: every sentence of the one is in the other.

Usage: check_messages.py PAGE COMMAND FILE…         compare with the sources and the help
       check_messages.py --update PAGE COMMAND      write the chapter on the help anew
       check_messages.py --match PAGE               print the lines of standard input that begin with
                                                    "tavro: " and that no line of the page allows

Texts are the string literals of FILE… that a person may read: those with a word and a blank or a quote,
and no statement for the database. Files of src/ may say more than the command prints.
"""

import functools
import os
import re
import subprocess
import sys

WORDS = "PATH OTHER NAME COUNT NUMBER SIZE TIME KIND COMMAND OPTION NEED TEXT REASON SENTENCE PATHS WHAT"
placeholder = re.compile(r"\b(?:" + WORDS.replace(" ", "|") + r")\b")
marks = {"%p": "'PATH'", "%o": "'OTHER'", "%O": "TEXT", "%e": "REASON", "%h": ""}
not_said = {
    "tavro: ",  # stands before all of them
    "unreadable record",  # the name of a file
    "[Trash Info]",  # what records hold
    "[Trash Info]\nPath=",
    "must be a directory when",  # what is looked for in sentences of others
    "target cannot be empty",
    " a directory into itself: ",
    "Failed checking destination ",
    " target matches the source path for ",
    " excludes ",
}
no_errors = ["What was done", "Lists"]
commands = [[]] + [
    name.split()
    for name in "copy|move|plan|plan copy|plan move|rename|mkdir|delete|trash|undo|redo|resume|history|"
    "list|restore|empty|doctor|size".split("|")
]


def read_page(path):
    """The lines of each chapter by its title, and the text of the last one, which is the help."""
    page, help_text = open(path, encoding="utf-8").read().split("\n## Help\n", 1)
    chapters = re.split(r"^## ", page, flags=re.M)[1:]
    lines = ["\n".join(re.findall(r"```text\n(.*?)```", chapter, re.S)).split("\n") for chapter in chapters]
    titles = [chapter.split("\n", 1)[0] for chapter in chapters]
    return {title: list(filter(None, found)) for title, found in zip(titles, lines)}, help_text


def read_help(command):
    text = "\nAs `tavro help` and `tavro help COMMAND` print it.\n"
    for name in commands:
        output = subprocess.run([command, *name, "--help"], capture_output=True, text=True, check=True).stdout
        text += f"\n### {' '.join(['tavro', *name])}\n\n```text\n{output.rstrip()}\n```\n"
    return text


def literals_of(path):
    """The strings of a source, neighbours as one."""
    token = re.compile(r'//[^\n]*|^#include[^\n]*|R"\((.*?)\)"|"((?:\\.|[^"\\\n])*)"|\'(?:\\.|[^\'\\\n])+\'|\S', re.S | re.M)
    open_literal = ""
    for match in token.finditer(open(path, encoding="utf-8").read()):
        raw, plain = match.group(1), match.group(2)
        if raw is not None or plain is not None:
            plain = (plain or "").replace("\\n", "\n").replace('\\"', '"').replace("\\\\", "\\")
            open_literal += plain if raw is None else raw
        elif not match.group(0).startswith("//"):
            if open_literal:
                yield open_literal
            open_literal = ""


def is_text(literal):
    statement = re.search(r"\b(SELECT|INSERT|UPDATE|DELETE|CREATE|ALTER|PRAGMA|BEGIN|PRIMARY|DEFAULT|ORDER BY)\b|[a-z]+ = ", literal)
    typed = re.fullmatch(r"-[\w,-]+|[a-z]+\|.*", literal)
    return re.search(r"[a-z]{2}", literal) and re.search(r"[ ']", literal) and not statement and not typed


def with_placeholders(literal):
    return re.sub("%[poOeh]", lambda mark: marks[mark.group(0)], literal)


def is_made_of(fragment, literals):
    """Whether a part of a line is one literal or several, or a part of the first and of the last."""
    if any(fragment in literal for literal in literals):
        return True

    @functools.lru_cache(maxsize=None)
    def rest_is(start):
        rest = fragment[start:]
        return any(literal.startswith(rest) for literal in literals) or any(
            rest.startswith(literal) and rest_is(start + len(literal)) for literal in literals
        )

    return any(
        rest_is(length)
        for length in range(len(fragment))
        if length == 0 or any(literal.endswith(fragment[:length]) for literal in literals)
    )


def pattern_of(line):
    parts = placeholder.split(line)
    words = placeholder.findall(line)
    wild = ["(.*)" if word == "SENTENCE" else ".*?" for word in words]
    return re.escape(parts[0]) + "".join(any_text + re.escape(part) for any_text, part in zip(wild, parts[1:]))


def unknown_lines(chapters, said):
    """What begins as an error, and is none of the page's. A sentence within another one is known, too."""
    lines = [line for title, chapter in chapters.items() if title not in no_errors for line in chapter]
    plain = re.compile("|".join(pattern_of(line) for line in lines if "SENTENCE" not in line))
    nested = [re.compile(pattern_of(line)) for line in lines if "SENTENCE" in line]

    def is_known(text):
        matches = filter(None, (pattern.fullmatch(text) for pattern in nested))
        return plain.fullmatch(text) or any(all(map(is_known, match.groups())) for match in matches)

    errors = [line[len("tavro: ") :] for line in said if line.startswith("tavro: ")]
    return [text for text in errors if not is_known(text)]


def compare(page, command, files):
    chapters, help_text = read_page(page)
    lines = [line for chapter in chapters.values() for line in chapter]
    said = "\n".join(lines) + help_text
    said += re.sub(r"\b(?:PATHS|WHAT|NUMBER)\b", "TEXT", said)  # what %O stands for
    literals = {path: {with_placeholders(literal) for literal in literals_of(path)} for path in files}
    everything = frozenset(literal for found in literals.values() for literal in found if literal)
    faults = [
        f"{path}: this is not in the page: {text!r}"
        for path, found in literals.items()
        for text in sorted(found)
        if os.path.basename(os.path.dirname(path)) != "src" and is_text(text) and text not in not_said and text.strip() not in said
    ]
    for line in lines:
        whole = line in everything
        faults += [
            f"nothing in the sources says {part!r}, of {line!r}"
            for part in ([] if whole else placeholder.split(line))
            if part and not is_made_of(part, everything)
        ]
    if help_text != read_help(command):
        faults.append("the chapter on the help is not what the command prints: write it anew with --update")
    return faults


def main(arguments):
    if arguments[0] == "--match":
        faults = unknown_lines(read_page(arguments[1])[0], sys.stdin.read().splitlines())
    elif arguments[0] == "--update":
        page = open(arguments[1], encoding="utf-8").read().split("\n## Help\n", 1)[0]
        open(arguments[1], "w", encoding="utf-8").write(page + "\n## Help\n" + read_help(arguments[2]))
        return
    else:
        faults = compare(arguments[0], arguments[1], arguments[2:])
    print("\n".join(faults))
    sys.exit(1 if faults else 0)


main(sys.argv[1:])
