"""Holds the man pages against what they describe.

Usage: man_pages.py tavro VERSION PAGE COMMAND
       man_pages.py tavroops VERSION PAGE HEADER…

tavro.1: each command of `tavro --help`, and of its commands in turn, is in the heading of one section,
and the options tagged in that section are those of its --help, no more and no less, each with the
name of its value. tavroops.3: the declarations of the synopsis are those of the headers, word for word.
The title of each has the version.
"""

import re
import subprocess
import sys


def unescaped(line):
    """A line of roff as it is printed, roughly."""
    line = re.sub(r"\\f.", "", line)
    line = line.replace(r"\-", "-").replace(r"\&", "").replace(r"\|", "").replace(r"\(ti", "~")
    match = re.match(r"\.([A-Z]+) ?(.*)", line)
    if not match:
        return line
    words = re.findall(r'"([^"]*)"|(\S+)', match.group(2))
    words = [quoted or plain for quoted, plain in words]
    joined = "" if match.group(1) in ("BR", "BI", "IR", "RI", "RB") else " "
    return joined.join(words)


def options_of(text):
    """The options in a text, "-q, --quiet" and "--in DIRECTORY" among them, without blanks."""
    return re.sub(r",\s+", ",", text.strip()).replace("...", "")


def page_sections(lines):
    """Maps each name in a heading to the options tagged below it."""
    sections, current, tagged = {}, None, False
    for line in lines:
        if re.match(r"\.S[HS] ", line):
            current = []
            for name in unescaped(line).split(", "):
                assert name not in sections, f"two sections on {name}"
                sections[name] = current
        elif tagged and current is not None:
            option = options_of(unescaped(line))
            if option.startswith("-"):
                current.append(option)
        tagged = line == ".TP"
    return sections


def help_of(command, names):
    text = subprocess.run([command, *names, "--help"], check=True, capture_output=True, text=True)
    return text.stdout


def help_part(text, title):
    """What stands under a title in a help text: (first column, whatever follows) for each."""
    match = re.search(rf"^{title}:\n((?:  .*\n|\n(?=  ))+)", text, re.MULTILINE)
    # The description of an option may stand in the same line, two blanks away, or in the next.
    lines = match.group(1).split("\n") if match else []
    return [re.split(r"\s{2,}", line.strip())[0] for line in lines if re.match(r"  \S", line)]


def check_command(command, names, sections):
    """The complaints about one command and those below it."""
    text = help_of(command, names)
    complaints = []
    documented = sections.get(" ".join(names) if names else "OPTIONS")
    offered = [options_of(option) for option in help_part(text, "Options")]
    if names:
        offered = [option for option in offered if option != "-h,--help"]
    if documented is None:
        complaints.append(f"no section on: tavro {' '.join(names)}")
    else:
        # Commands with the options of another are in its section, so a section may have more.
        complaints += [f"tavro {' '.join(names)}: not on the page: {option}"
                       for option in offered if option not in documented]
        complaints += [f"tavro {' '.join(names)}: only on the page: {option}"
                       for option in documented if option not in offered
                       and not help_part(text, "Subcommands")]
    for name in help_part(text, "Subcommands"):
        complaints += check_command(command, [*names, name], sections)
    return complaints


def check_tavro(page, command):
    return check_command(command, [], page_sections(page.splitlines()))


def declarations(text):
    """The declarations of functions in C++ without comments, each in one line."""
    found = re.findall(r"^[a-z][^;{}#]*\bTavro\w+\([^;{}]*\);", text, re.MULTILINE)
    return [" ".join(declaration.split()) for declaration in found]


def check_tavroops(page, headers):
    declared = []
    for header in headers:
        with open(header, encoding="utf-8") as file:
            declared += declarations(re.sub(r"//.*", "", file.read()))
    assert declared, "no declarations in the headers"
    synopsis = page.split(".SH SYNOPSIS")[1].split(".SH ")[0]
    printed = declarations("\n".join(unescaped(line) for line in synopsis.splitlines()))
    return [f"not in the synopsis: {one}" for one in declared if one not in printed] + \
           [f"only in the synopsis: {one}" for one in printed if one not in declared]


def check_title(page, name, version):
    if re.search(rf'^\.TH {name.upper()} \d \S+ "Tavro {version}"', page, re.MULTILINE):
        return []
    return [f"the title is not that of {name} {version}"]


def main(name, version, path, *rest):
    with open(path, encoding="ascii") as file:
        page = file.read()
    complaints = check_title(page, name, version)
    complaints += check_tavro(page, *rest) if name == "tavro" else check_tavroops(page, rest)
    for complaint in complaints:
        print(f"{path}: {complaint}")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
