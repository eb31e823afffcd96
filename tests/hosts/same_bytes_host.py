"""Reconstructs raw images by every run, gains chosen here and by the command line's recipes:
same_bytes_host.py FOLDER WIDTH HEIGHT COUNT."""
import pathlib
import sys

import numpy as np

import velostrix

folder = pathlib.Path(sys.argv[1])
width, height, count = (int(number) for number in sys.argv[2:])
images = [
    np.fromfile(folder / f"image{k}.raw", np.uint8).reshape(height, width) for k in range(count)
]
for run in velostrix.RUNS:
    tuned = velostrix.Parameters.load(folder / "cli/tuned" / run / "run.json")
    for case, parameters in ("plain", velostrix.Parameters(run)), ("tuned", tuned):
        out = folder / "python" / case / run
        out.mkdir(parents=True)
        for name, image in velostrix.reconstruct(images, parameters).items():
            image.tofile(out / f"{name}.raw")
