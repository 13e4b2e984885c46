#!/usr/bin/env python3
"""Looks for links and file names in Markdown pages that lead nowhere.

A link is relative to its page, and the part behind # is a heading there. A file of the project is
named in backticks, from the root of the project.

Usage: check_links.py ROOT    looks at the pages in ROOT and in ROOT/docs
"""

import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
directories = "|".join(p.name for p in root.iterdir() if p.is_dir() and p.name not in (".git", "build"))
mentioned = re.compile(rf"`((?:{directories.replace('.', '[.]')})/[\w./-]*|[\w-]+\.(?:md|sh|py|txt))`")


def headings(page):
    """The anchors that Git's web pages give the headings of a page."""
    text = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.S | re.M)
    return [re.sub(r"[^\w -]", "", h.lower()).replace(" ", "-") for h in re.findall(r"^#+ (.*)$", text, re.M)]


wrong, seen = [], 0
for page in sorted([*root.glob("*.md"), *root.glob("docs/*.md")]):
    text = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.S | re.M)
    for target, anchor in re.findall(r"\]\((?!https?:)([^)#\s]*)#?([^)\s]*)\)", text):
        seen += 1
        there = (page.parent / target) if target else page
        if not there.exists() or (anchor and anchor not in headings(there)):
            wrong.append(f"{page}: the link to {target}{'#' + anchor if anchor else ''} leads nowhere")
    for name in mentioned.findall(text):
        seen += 1
        if not (root / name).exists() and not (page.parent / name).exists():
            wrong.append(f"{page}: there is no {name}")
if not seen:
    wrong.append("the pages have no link and name no file")
print("\n".join(wrong) or f"{seen} links and names, all of them there")
sys.exit(bool(wrong))
