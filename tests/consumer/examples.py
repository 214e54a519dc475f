#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Prints every example in the comments of headers as a function, and a table of them: examples.py HEADER...

An example is the lines that follow "// Example:", four blanks further in. Each becomes the body of a function that is
named after the class or function declared next. One that returns something must return true. One that returns nothing
would change the host: it is compiled and linked, but not run. A class without an example is an error.
"""

import os
import re
import sys

MARK = "// Example:"
CODE = re.compile(r"//     (.*)")
CLASS = re.compile(r"class IPSEC_EXPORT (\w+)")
FUNCTION = re.compile(r"IPSEC_EXPORT [^(]*?(\w+)\(")


class Example:
    def __init__(self, header, first_line, code):
        self.header = header
        self.first_line = first_line
        self.code = code
        self.name = ""

    def runs(self):
        return any(line.lstrip().startswith("return ") for line in self.code)

    def function(self):
        """The example as a function. The compiler's messages name the header's lines."""
        head = f"{'bool' if self.runs() else 'void'} exampleOf{self.name}() {{"
        return "\n".join([head, f'#line {self.first_line} "{self.header}"', *self.code, "}", ""])

    def row(self):
        function = f"exampleOf{self.name}"
        pair = f"{function}, nullptr" if self.runs() else f"nullptr, {function}"
        return f'    {{"{self.name}", "{self.header}", {pair}}},'


def read_example(header, lines, mark):
    code = []
    for line in lines[mark + 1 :]:
        found = CODE.fullmatch(line)
        if not found:
            break
        code.append(found.group(1))
    if not code:
        sys.exit(f"examples: line {mark + 1} announces an example, and none follows")
    return Example(header, mark + 2, code)


def read_header(header, lines):
    examples = []
    waiting = None  # the example that has no name yet
    for number, line in enumerate(lines):
        if line == MARK:
            waiting = read_example(header, lines, number)
            continue
        declared = CLASS.match(line) or FUNCTION.match(line)
        if declared and waiting:
            waiting.name = declared.group(1)
            examples.append(waiting)
            waiting = None
        elif CLASS.match(line):
            sys.exit(f"examples: class {declared.group(1)} has no example")
    if waiting or not examples:
        sys.exit("examples: no declaration follows the last example, or there is no example at all")
    return examples


def main():
    examples = []
    for path in sys.argv[1:]:
        with open(path, encoding="utf-8") as header:
            examples += read_header(os.path.basename(path), header.read().splitlines())
    for example in examples:
        print(example.function())
    print("const Example examples[] = {")
    for example in examples:
        print(example.row())
    print("};")


if __name__ == "__main__":
    main()
