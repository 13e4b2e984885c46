#!/usr/bin/env python3
"""Compares the C++ blocks of the guide with the examples that are compiled and tested.

Each block of the guide is, byte for byte, what stands between two lines `//! [NAME]` of one file in
docs/examples, and each of these is shown in the guide.

Usage: check_guide.py GUIDE EXAMPLE…
"""

import pathlib
import re
import sys

guide = pathlib.Path(sys.argv[1]).read_text()
blocks = re.findall(r"^```cpp\n(.*?)^```$", guide, re.S | re.M)
examples = {}
for path in map(pathlib.Path, sys.argv[2:]):
    for name, text in re.findall(r"^//! \[(.+)\]\n(.*?)^//! \[\1\]$", path.read_text(), re.S | re.M):
        examples[f"{path.name} [{name}]"] = text

wrong = [f"in the guide, but no example:\n{text}" for text in blocks if text not in examples.values()]
wrong += [f"not in the guide as it is: {name}" for name, text in examples.items() if text not in blocks]
if not blocks:
    wrong.append("the guide has no C++ block")
print("\n".join(wrong) or f"{len(blocks)} blocks, all of them tested")
sys.exit(bool(wrong))
