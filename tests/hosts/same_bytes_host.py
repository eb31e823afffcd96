"""Reconstructs raw images by every run: same_bytes_host.py FOLDER WIDTH HEIGHT COUNT."""
import pathlib
import sys

import numpy as np

import velostrix

folder = pathlib.Path(sys.argv[1])
width, height, count = (int(number) for number in sys.argv[2:])
images = [
    np.fromfile(folder / f"image{k}.raw", np.uint8).reshape(height, width) for k in range(count)
]
CASES = {
    "plain": {},
    "tuned": dict(
        roi=(8, 6, 80, 60), scale=0.75, equalise=True, difference="forward", blur=2, iterations=30,
        band=20,
        gains={"factor": 0.9, "curvature": 300.5, "magnitude": 200.25, "channel0": 90.0,
               "channel1": -90.0, "channel2": 4000.0},
        offsets={"curvature": 120, "magnitude": 3, "channel0": 100, "channel1": 140, "channel2": 5},
    ),
}
for case, keywords in CASES.items():
    for run in velostrix.RUNS:
        out = folder / "python" / case / run
        out.mkdir(parents=True)
        for name, image in velostrix.reconstruct(images, run=run, **keywords).items():
            image.tofile(out / f"{name}.raw")
