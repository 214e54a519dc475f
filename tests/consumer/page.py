#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Takes the program of a page out of it: page.py --program|--output|--commands PAGE.

The program is all of the page's blocks of C++, one after the other. Its output is the first block without a language
after it, and the commands that build and run it are the first block of shell after it.
"""

import os
import re
import sys

BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def program(name, text, blocks):
    """The compiler's messages name the page's lines."""
    for block in blocks:
        line = text.count("\n", 0, block.start(2)) + 1
        print(f'#line {line} "{name}"')
        print(block.group(2), end="")


def following(text, blocks, language):
    """The first block of a language after the last block of C++."""
    for block in BLOCK.finditer(text, blocks[-1].end()):
        if block.group(1) == language:
            return block.group(2)
    sys.exit(f"page: no block {language!r} follows the program")


def main():
    path = sys.argv[-1]
    with open(path, encoding="utf-8") as page:
        text = page.read()
    blocks = [block for block in BLOCK.finditer(text) if block.group(1) == "cpp"]
    if not blocks or text.count("```cpp") != len(blocks):
        sys.exit(f"page: {path} has {text.count('```cpp')} marks of C++ and {len(blocks)} blocks")
    if sys.argv[1] == "--output":
        print(following(text, blocks, ""), end="")
    elif sys.argv[1] == "--commands":
        print(following(text, blocks, "sh"), end="")
    else:
        program(os.path.basename(path), text, blocks)


if __name__ == "__main__":
    main()
