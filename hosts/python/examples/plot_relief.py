#!/usr/bin/env python3
"""Reconstructs image files and plots images and results.

    plot_relief.py IMAGE IMAGE IMAGE... [--run uncali] [--save relief.png]

Needs python3-matplotlib. The cells may be pasted into a notebook.
"""
# %% Images in
import argparse
import sys

import matplotlib
import numpy as np

arguments = argparse.ArgumentParser(description="Plots relief from images under different lamps.")
arguments.add_argument("images", nargs="+", help="3 to 8 image files of one scene, 8 bits")
arguments.add_argument("--run", default="uncali", help="uncali, cali, partrows or partcols")
arguments.add_argument("--save", help="write the plot to this file instead of showing it")
options = arguments.parse_args()
if options.save:
    matplotlib.use("Agg")
import matplotlib.pyplot as plt
from PIL import Image

import velostrix

images = [np.asarray(Image.open(path).convert("L")) for path in options.images]

# %% Reconstruct, with gains that make the images readable
try:
    parameters = velostrix.Parameters(run=options.run)
    for warning in velostrix.diagnose(images, parameters, options.images).warnings:
        print(f"plot_relief: {warning}", file=sys.stderr)
    result = velostrix.reconstruct(images, parameters)
except (ValueError, TypeError) as error:
    raise SystemExit(f"plot_relief: {error}")
print(result)

# %% Look
names = ["factor", "channel0", "channel1", "curvature", "magnitude", "height"]
columns = max(len(images), len(names))
figure, axes = plt.subplots(2, columns, figsize=(3 * columns, 6), layout="constrained")
for axis in axes.flat:
    axis.set_axis_off()
for k, image in enumerate(images):
    axes[0, k].imshow(image, cmap="gray", vmin=0, vmax=255)
    axes[0, k].set_title(f"lamp {k + 1}")
for axis, name in zip(axes[1], names):
    axis.imshow(result[name], cmap="viridis" if name == "height" else "gray")
    axis.set_title(name)
if options.save:
    figure.savefig(options.save)
else:
    plt.show()
