#!/usr/bin/env python3
"""Follows the code blocks of one page of the documentation as a reader does: in one folder.

What becomes of a block is told by its fence:

    sh            run by bash, in order; a command that fails fails the test
    cpp NAME      written to the file NAME, which an sh block of the page has to build
    python        the blocks of a page are one program, run at the end
    csharp        the blocks of a page are steps of one program, SnippetContext.cs, run at the end
    console, text not run: installs packages, takes minutes or needs what a test does not have

Blocks of other kinds, indented ones too, are refused, and so are links to files that do not exist.
The folder looks like the top of the project after a build, with four pictures image0 to image3 as
PNG and PGM files; the installed copy of the project is on the paths.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
from dataclasses import dataclass, field
from pathlib import Path
from typing import List

from PIL import Image

KINDS = ("sh", "cpp", "python", "csharp", "console", "text")


@dataclass
class Block:
    line: int  # of the fence
    kind: str
    name: str = ""
    code: List[str] = field(default_factory=list)


def read_blocks(page: Path) -> List[Block]:
    def refuse(line: int, reason: str) -> None:
        raise SystemExit(f"{page}:{line}: {reason}")

    blocks: List[Block] = []
    is_inside, previous = False, ""
    for number, line in enumerate(page.read_text().splitlines(), 1):
        if line.lstrip().startswith("```"):
            is_inside = not is_inside
            if is_inside:
                kind, _, name = line.strip().strip("`").partition(" ")
                blocks.append(Block(number, kind, name))
                if kind not in KINDS:
                    refuse(number, f"block of kind '{kind}'; expected one of {', '.join(KINDS)}")
                if (kind == "cpp") != bool(name):
                    refuse(number, "a cpp block, and no other, is given the name of its file")
        elif is_inside:
            blocks[-1].code.append(line)
        elif line.startswith("    ") and not previous.strip():
            refuse(number, "indented block; expected a fence that says what it is")
        else:
            for target in re.findall(r"\]\(([^)#]+)[^)]*\)", line):
                if "://" not in target and not (page.parent / target).exists():
                    refuse(number, f"link to {target}, which does not exist")
        previous = line
    if is_inside:
        refuse(blocks[-1].line, "block without an end")
    return blocks


def prepare_folder(options: argparse.Namespace) -> None:
    work = options.work
    shutil.rmtree(work, ignore_errors=True)
    (work / "build").mkdir(parents=True)
    (work / "build/release").symlink_to(options.build)
    shutil.copytree(options.source / "hosts", work / "hosts",
                    ignore=shutil.ignore_patterns("__pycache__", "build", "*.egg-info"))
    shutil.copy(options.source / "CMakeLists.txt", work)
    # The compiler and the interpreter of the build under the names that readers type.
    (work / "bin").mkdir()
    commands = {"g++": f"env -u LD_PRELOAD {options.compiler}", "python3": sys.executable}
    for name, command in commands.items():
        program = work / "bin" / name
        program.write_text(f'#!/bin/sh\nexec {command} "$@"\n')
        program.chmod(0o755)


def environment_of(options: argparse.Namespace) -> dict:
    library = options.installed / options.libdir
    return {
        **os.environ,
        **dict(setting.split("=", 1) for setting in options.environment),
        "PATH": os.pathsep.join(
            [str(options.work / "bin"), str(options.installed / "bin"), os.environ["PATH"]]),
        "PKG_CONFIG_PATH": str(library / "pkgconfig"),
        "LD_LIBRARY_PATH": str(library),
        "PYTHONPATH": "hosts/python",
        "VELOSTRIX_LIBRARY_PATH": "build/release",
    }


def main() -> None:
    arguments = argparse.ArgumentParser()
    arguments.add_argument("page", type=Path)
    for folder in ("source", "build", "work", "installed"):
        arguments.add_argument("--" + folder, type=Path, required=True)
    for value in ("libdir", "compiler", "mcs", "mono"):
        arguments.add_argument("--" + value, required=True)
    arguments.add_argument("--environment", nargs="*", default=[], help="NAME=VALUE")
    options = arguments.parse_args()
    blocks = read_blocks(options.page)
    prepare_folder(options)
    environment = environment_of(options)

    def run(*command) -> None:
        done = subprocess.run(list(map(str, command)), cwd=options.work, env=environment)
        if done.returncode != 0:
            sys.exit(f"{options.page}: exit code {done.returncode} of {command[0]}")

    run("velostrix", "render", "--out", ".", "--images", 4, "--size", "160x120", "--quiet")
    for k in range(4):
        Image.open(options.work / f"image{k}.png").save(options.work / f"image{k}.pgm")

    def code_of(kind: str) -> List[str]:
        return ["\n".join(block.code) + "\n" for block in blocks if block.kind == kind]

    commands = "".join(code_of("sh"))
    for block in blocks:
        if block.kind == "cpp":
            if block.name not in commands:
                sys.exit(f"{options.page}:{block.line}: no sh block builds {block.name}")
            (options.work / block.name).write_text("\n".join(block.code) + "\n")
        elif block.kind == "sh":
            print(f"{options.page}:{block.line}", flush=True)
            run("bash", "-euxo", "pipefail", "-c", "\n".join(block.code))
    if code_of("python"):
        (options.work / "page.py").write_text("\n".join(code_of("python")))
        run(sys.executable, "-W", "error", "page.py")
    if code_of("csharp"):
        context = Path(__file__).with_name("SnippetContext.cs").read_text()
        steps = "".join(f"static void Step{k}()\n{{\n{code}}}\n"
                        for k, code in enumerate(code_of("csharp")))
        calls = " ".join(f"Step{k}();" for k in range(len(code_of("csharp"))))
        (options.work / "Page.cs").write_text(
            context.replace("/* steps */", steps).replace("/* calls */", calls))
        library = sorted((options.work / "hosts/csharp").glob("*.cs"))
        run(options.mcs, "-langversion:7", "-out:page.exe", *library, "Page.cs")
        run(options.mono, "--debug", "page.exe")


if __name__ == "__main__":
    main()
