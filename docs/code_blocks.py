#!/usr/bin/env python3
"""Follows the code blocks of one page of the documentation as a reader does: in one folder.

The fence of a block says what happens with it:

    sh            run by bash, in order; a command that fails fails the test
    cpp NAME      written to the file NAME, which an sh block of the page has to build
    python        the blocks of a page are one program, run at the end
    csharp        the blocks of a page are steps of one program, SnippetContext.cs, run at the end
    console, text not run: installs packages, takes minutes or needs what a test does not have

Blocks of other kinds, indented ones too, are refused, and so are links to files that do not exist.
The folder looks like the top of the project after a build, with four pictures image0.png to
image3.png; the installed copy of the project is on the paths.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

KINDS = ("sh", "cpp", "python", "csharp", "console", "text")


def refuse(page: Path, line: int, reason: str) -> None:
    raise SystemExit(f"{page}:{line}: {reason}")


def read_blocks(page: Path) -> list:
    """The blocks of a page: number of the first line, kind, name, text."""
    blocks, code, previous = [], None, ""
    for number, line in enumerate(page.read_text().splitlines(), 1):
        if line.lstrip().startswith("```"):
            if code is None:
                kind, _, name = line.strip().strip("`").partition(" ")
                if kind not in KINDS or (kind == "cpp") != bool(name):
                    refuse(page, number, f"expected one of {KINDS}; cpp, and no other, with a name")
                code = []
            else:
                blocks.append((number - len(code), kind, name, "\n".join(code) + "\n"))
                code = None
        elif code is not None:
            code.append(line)
        elif line.startswith("    ") and not previous.strip():
            refuse(page, number, "indented block; expected a fence that says what it is")
        else:
            for target in re.findall(r"\]\(([^)#]+)[^)]*\)", line):
                if "://" not in target and not (page.parent / target).exists():
                    refuse(page, number, f"link to {target}, which does not exist")
        previous = line
    if code is not None:
        refuse(page, number, "block without an end")
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

    def codes(kind: str) -> list:
        return [code for _, block_kind, _, code in blocks if block_kind == kind]

    for line, kind, name, code in blocks:
        if kind == "cpp":
            if name not in "".join(codes("sh")):
                refuse(options.page, line, f"no sh block builds {name}")
            (options.work / name).write_text(code)
        elif kind == "sh":
            print(f"{options.page}:{line}", flush=True)
            run("bash", "-euxo", "pipefail", "-c", code)
    if codes("python"):
        (options.work / "page.py").write_text("".join(codes("python")))
        run(sys.executable, "-W", "error", "page.py")
    if codes("csharp"):
        steps = [f"static void Step{k}()\n{{\n{code}}}\n" for k, code in enumerate(codes("csharp"))]
        calls = [f"Step{k}();" for k in range(len(steps))]
        context = Path(__file__).with_name("SnippetContext.cs").read_text()
        (options.work / "Page.cs").write_text(
            context.replace("/* steps */", "".join(steps)).replace("/* calls */", " ".join(calls)))
        library = sorted((options.work / "hosts/csharp").glob("*.cs"))
        bitmaps = options.work / "hosts/csharp/drawing/BitmapImages.cs"
        run(options.mcs, "-langversion:7", "-out:page.exe", "-r:System.Drawing.dll", *library,
            bitmaps, "Page.cs")
        run(options.mono, "--debug", "page.exe")


if __name__ == "__main__":
    main()
