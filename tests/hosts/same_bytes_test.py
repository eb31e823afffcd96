"""The same bytes from the command line (C++), C# and Python, by gains of their own and by its recipes:
same_bytes_test.py VELOSTRIX FOLDER COMMAND..., where COMMAND is that of the host in C#."""
import pathlib
import shutil
import subprocess
import sys

import numpy as np
from PIL import Image

import velostrix

program, folder = map(pathlib.Path, sys.argv[1:3])
recipe = pathlib.Path(__file__).with_name("recipe.json")
shutil.rmtree(folder, ignore_errors=True)
folder.mkdir()


def call(*command):
    subprocess.run(list(map(str, command)), cwd=folder, check=True)


def read(path):
    image = np.asarray(Image.open(path))
    # Files have red first; 16 bits are read as 32.
    return image[..., ::-1] if image.ndim == 3 else image.astype(np.uint16 if image.itemsize > 1 else np.uint8)


call(program, "render", "--quiet", "--out", ".", "--images", 4, "--size", "96x72")
images = [read(file) for file in sorted(folder.glob("image?.png"))]
for k, image in enumerate(images):
    image.tofile(folder / f"image{k}.raw")
for run in velostrix.RUNS:
    for case, options in ("plain", ("--orientation", "as-is")), ("tuned", ("--recipe", recipe)):
        call(program, "reconstruct", "--quiet", *sorted(folder.glob("image?.png")),
             "--out", f"cli/{case}/{run}", "--run", run, *options)
call(*sys.argv[3:], ".", 96, 72, 4)

compared = 0
for written in sorted(folder.glob("cli/*/*/*.png")):
    case, run, name = *written.parts[-3:-1], written.stem
    parameters = velostrix.Parameters.load(written.with_name("run.json"))
    results = {"by its recipe": velostrix.reconstruct(images, parameters)}
    if case == "plain":
        results["by chosen gains"] = velostrix.reconstruct(images, run=run)
    expected = np.ascontiguousarray(read(written))
    for how, result in results.items():
        np.testing.assert_array_equal(result[name], expected, f"Python {how}: {written}")
        raw = folder / "csharp" / how / run / case / f"{name}.raw"
        assert raw.read_bytes() == expected.tobytes(), f"C# {how}: {raw}"
        compared += 1
assert compared == 4 * (8 + 8 + 7), compared
