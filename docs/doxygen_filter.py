#!/usr/bin/env python3
"""Doxygen input filter: reads the public headers' plain `//` comments as documentation.

The headers are written for people reading them: a file opens with its purpose and contract,
and a comment documents the declaration that follows it. This filter makes Doxygen read them the same way, keeping every line
where it was so that warnings point into the header:

- the opening comment documents the file, and also the class it is about when it opens with
  that class's name ("kp::Foo: ...");
- a comment inside a namespace, class or enum documents the declaration after it;
- "Example:" sections become code blocks;
- a trailing `// text` after a member documents that member;
- comments inside function bodies and initialisers stay plain comments.
"""
import re
import sys

COMMENT = re.compile(r"^(\s*)//(?![/!])(.*)$")
SCOPE = re.compile(r"\b(namespace|class|struct|union|enum)\b|extern\s+\"C")
TAG = re.compile(r"(?<![\w:])<([a-z][^<>]*)>")
NAMED = re.compile(r"^\s*((?:kp|tarvix)::(\w+))(?=[:, (<])")


def code_of(line):
    """The line without string and character literals or a trailing comment."""
    return code_and_comment(line)[0]


def code_and_comment(line):
    """The line without literals or a trailing comment, and where that comment starts."""
    out, i, quote = [], 0, None
    while i < len(line):
        c = line[i]
        if quote:
            if c == "\\":
                i += 2
                continue
            if c == quote:
                quote = None
            i += 1
            continue
        if c in "\"'":
            # A digit separator (1'000) is not a character literal.
            if c == "'" and 0 < i < len(line) - 1 and line[i - 1].isalnum() and line[i + 1].isalnum():
                i += 1
                continue
            quote = c
            i += 1
            continue
        if line.startswith("//", i) or line.startswith("/*", i):
            break
        out.append(c)
        i += 1
    return "".join(out), i


def scan(lines):
    """Per line: the brace stack before it, True for a scope and False for a body."""
    stack, pending = [], ""
    before = []
    for line in lines:
        before.append(list(stack))
        if not line.lstrip().startswith("#"):
            for c in code_of(line):
                if c == "{":
                    head = pending.rsplit(")", 1)[-1] if ")" in pending else pending
                    stack.append(bool(SCOPE.search(pending)) and "(" not in head)
                    pending = ""
                elif c == "}":
                    if stack:
                        stack.pop()
                    pending = ""
                elif c == ";":
                    pending = ""
                else:
                    pending += c
            pending += " "
    return before


def convert_block(texts, prefix):
    converted = [prefix + t for t in texts]
    # Example sections: the lines indented beyond the "Example:" line are code.
    k = 0
    while k < len(texts):
        if re.match(r"^\s*Examples?\b.*:\s*$", texts[k]):
            first = last = k + 1
            while last < len(texts) and (texts[last].startswith("   ") or not texts[last].strip()):
                last += 1
            while last > first and not texts[last - 1].strip():
                last -= 1
            if last > first:
                converted[k] += " @code{.cpp}"
                converted[last - 1] += " @endcode"
            k = max(last, k + 1)
        else:
            k += 1
    return converted


def filter_lines(lines, path):
    before = scan(lines)
    out = list(lines)
    for k, line in enumerate(lines):
        code, start = code_and_comment(line)
        rest = line[start:]
        if code.strip() and not code.lstrip().startswith("#") and all(before[k]) and re.match(r"//(?![/!<])(?!\s*NOLINT)", rest):
            out[k] = line[:start] + "///< " + rest[2:].strip()
    seen_code = False
    i = 0
    while i < len(lines):
        match = COMMENT.match(lines[i])
        if not match:
            seen_code = seen_code or bool(lines[i].strip())
            i += 1
            continue
        start = i
        while i < len(lines) and COMMENT.match(lines[i]):
            i += 1
        if not all(before[start]):
            continue
        texts = [COMMENT.match(lines[k]).group(2) for k in range(start, i)]
        texts = [TAG.sub(r"&lt;\1&gt;", t) for t in texts]
        named = NAMED.match(texts[0])
        if not seen_code and named and lines[i:i + 2] == ["#pragma once", ""] and re.search(
                r"\b(class|struct)\s+(KP_EXPORT\s+)?%s\b" % named.group(2), "\n".join(lines)):
            # The file is about one class: its description is the class's. The block takes
            # the place of the include guard and the blank line after it, which Doxygen
            # does not need.
            out[start:i + 2] = ["/** @class " + named.group(1)] + convert_block(texts, "") + ["*/ /** @file */"]
            i += 2
            continue
        converted = convert_block(texts, match.group(1) + "///")
        if not seen_code:
            converted[-1] += " @file"
        out[start:i] = converted
    return out


def main():
    with open(sys.argv[1], encoding="utf-8") as f:
        lines = f.read().split("\n")
    sys.stdout.write("\n".join(filter_lines(lines, sys.argv[1])))


if __name__ == "__main__":
    main()
