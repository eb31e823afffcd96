#!/usr/bin/env python3
"""Doxygen's view of a public header: the project's plain comments, marked as documentation.

    doxygen_comments.py HEADER > what Doxygen reads, line for line

The comment that a file begins with tells of the file, a comment above declarations of all of them
up to the next empty line, a comment behind a declaration of that one. "---- name ----" begins a
section, a comment by itself tells of its section. Comments inside functions stay what they are.
"""
import re
import sys
from pathlib import Path
from typing import List

SECTION = re.compile(r"/\* ---- (.*?) -+$")
ABOVE = re.compile(r" {0,2}(//|/\*(?!\*))")
BEHIND = re.compile(r"( {0,2}[^\s}#].*? +//| *[^\s}#*].*? +/\*) ")
DECLARATION = re.compile(r" {0,2}\w(?!.*(//|/\*) )")
GOES_ON = re.compile(r" {3,}// ")  # the comment behind the line before
TEXT = re.compile(r" *(//|/\*| \*/?)(.*?)(\*/)?$")


def comment_end(lines: List[str], start: int) -> int:
    """The line after the comment that begins at a line."""
    end = start + 1
    if "/*" in lines[start]:
        while "*/" not in lines[end - 1]:
            end += 1
    else:
        while ABOVE.match(lines[end]):
            end += 1
    return end


def show_as_it_stands(comment: List[str]) -> None:
    """Marks indented paragraphs other than numbered lists, on the empty lines around them."""
    is_shown = False
    for k, line in enumerate(comment):
        text = TEXT.match(line)[2]
        if is_shown and not text.strip():
            comment[k] = re.sub(r"( \*|//).*", r"\1 @endverbatim", line) + " */" * ("*/" in line)
            is_shown = False
        elif k > 0 and comment[k - 1].strip() in ("*", "//") and re.match(r" {3,}[^ \d]", text):
            comment[k - 1] += " @verbatim"
            is_shown = True


def marked(comment: List[str], command: str = "") -> List[str]:
    show_as_it_stands(comment)
    if "/*" in comment[0]:
        return [comment[0].replace("/*", "/**" + command, 1)] + comment[1:]
    first = comment[0].replace("//", "///" + command, 1)
    return [first] + [line.replace("//", "///", 1) for line in comment[1:]]


def documented(lines: List[str], name: str) -> List[str]:
    lines = lines + [""]
    section = ""
    is_behind = False
    k = 0
    while k < len(lines) - 1:
        heading = SECTION.match(lines[k])
        goes_on = is_behind and GOES_ON.match(lines[k])
        is_behind = bool(goes_on or BEHIND.match(lines[k]))
        end = k + 1
        if heading:
            end = comment_end(lines, k)
            close = "/** @} */ " if section else ""
            section = heading[1].replace(" ", "_")
            lines[k] = f"{close}/** @defgroup {section} {heading[1].capitalize()}"
            lines[end - 1] = "@{ */"
        elif is_behind:
            lines[k] = re.sub(r"//|/\*", lambda mark: mark[0] + mark[0][-1] + "<", lines[k], 1)
        elif ABOVE.match(lines[k]):
            end = comment_end(lines, k)
            stop = lines.index("", end)
            text = " ".join(TEXT.match(line)[2].strip() for line in lines[k:end])
            if k == 0:
                lines[:end] = marked(lines[:end], f" @file {name} @brief")
            elif stop > end:
                lines[k:end] = marked(lines[k:end])
                others = [d for d in range(end + 1, stop) if DECLARATION.match(lines[d])]
                if not any(line.endswith("{") for line in lines[end:stop]):
                    for d in others:
                        lines[d] = f"/** {text} */ {lines[d]}"
            elif section:
                lines[k:end] = marked(lines[k:end])
                lines[k - 1] = f"/** @}} */ /** @addtogroup {section}"
                lines[k] = lines[k].replace("/**", " *")
                lines[end - 1] = lines[end - 1].replace("*/", "@{ */")
        k = end
    lines[-1] = "/** @} */" if section else ""
    return lines


if __name__ == "__main__":
    header = Path(sys.argv[1])
    print("\n".join(documented(header.read_text(encoding="utf-8").splitlines(), header.name)))
