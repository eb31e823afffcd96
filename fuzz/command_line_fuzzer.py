#!/usr/bin/env python3
"""Runs the command line with arguments and damaged image files made from seeds.

Every call must end by itself with exit code 0, 1 or 2; one that fails says why in one line, its
last, on stderr.
"""
import argparse
import random
import shutil
import subprocess
import sys
from pathlib import Path
from typing import List

import numpy as np
from PIL import Image

OPTIONS = (
    "--run --band --bits --outputs --roi --scale --equalise --difference --blur-radius --iteration-cap"
    " --gain --offset --recipe --split-channels --quiet --nonsense"
).split()
VALUES = (
    "uncali cali partcols partrows height,normal 0,0,15,15 -1,-1,99,99 5,5,4,4 0.5 nan -inf 1e300 0"
    " 3 -1 2147483648 forward factor=2 channel0=nan curvature= magnitude=1e9 %s%n --"
).split() + [""]


def write_image(path: Path) -> None:
    """An image file, or what is left of one after cuts and changed bytes."""
    height = random.randint(1, 40) if random.randrange(24) == 0 else 24
    shape, depth = random.choice([((), 8), ((), 8), ((), 8), ((3,), 8), ((), 16)])
    pixels = random.randbytes(height * 32 * (shape or (1,))[0] * depth // 8)
    image = np.frombuffer(pixels, f"<u{depth // 8}").reshape((height, 32) + shape)
    Image.fromarray(image).save(path, "PNG" if depth == 16 else None)
    if random.randrange(8) != 0:
        return
    damaged = bytearray(path.read_bytes())
    for _ in range(random.randrange(8)):
        damaged[random.randrange(len(damaged))] = random.randrange(256)
    if random.randrange(3) == 0:
        del damaged[random.randrange(len(damaged)) :]
    path.write_bytes(damaged)


def arguments(folder: Path) -> List[str]:
    command = "sheet" if random.randrange(16) == 0 else "reconstruct"
    images = random.randrange(10) if random.randrange(4) == 0 else 3
    paths = []
    for k in range(images):
        paths.append(folder / f"image{k}.{random.choice(('png', 'bmp', 'tif', 'jpg'))}")
        write_image(paths[-1])
    chosen = []
    for _ in range(random.randrange(4)):
        chosen.append(random.choice(OPTIONS))
        if random.randrange(5) != 0:
            chosen.append(random.choice(VALUES))
    return [command, *map(str, paths), *chosen, "--out", str(folder / "out")]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program")
    parser.add_argument("folder", type=Path, help="for scratch files")
    parser.add_argument("runs", type=int, nargs="?", default=200)
    parser.add_argument("seed", type=int, nargs="?", default=1)
    options = parser.parse_args()
    done = 0
    for seed in range(options.seed, options.seed + options.runs):
        random.seed(seed)
        shutil.rmtree(options.folder, ignore_errors=True)
        options.folder.mkdir(parents=True)
        call = [options.program, *arguments(options.folder)]
        ended = subprocess.run(call, capture_output=True, text=True, errors="replace", timeout=60)
        last_line = (ended.stderr.splitlines() or [""])[-1]
        if ended.returncode == 0:
            done += 1
        elif ended.returncode not in (1, 2) or not last_line.startswith("velostrix: "):
            sys.exit(f"seed {seed}: exit code {ended.returncode}, {ended.stderr!r}\n  {call}")
    if done == 0:
        sys.exit("every call was refused: the image files are not what they are meant to be")
    print(f"{options.runs} calls from seed {options.seed}, {done} done, the others refused")


if __name__ == "__main__":
    main()
