"""What a type checker has to accept and, where errors are expected, to refuse. Not run."""
import numpy as np
from numpy.typing import NDArray

import velostrix
from velostrix import Parameters, Tool

images = [np.zeros((60, 80), np.uint8)] * 4
result = velostrix.reconstruct(images, run="cali", outputs=["height"], gains={"factor": 2})
result = velostrix.reconstruct(images, Parameters(region=(0, 0, 9, 9), offsets={"channel0": 1}))
height: NDArray[np.uint16] = result["height"]
height = result.height
curvature: NDArray[np.uint8] = result["curvature"]
for name, image in result.items():
    print(result[name].shape == image.shape)
result.report("part.html", images)
with Tool() as tool:
    tool.prepare(4, images[0].shape, Parameters(outputs=["normal"]))
    warnings: str = "".join(tool.diagnose(iter(images)).warnings)

Parameters(run="fast")  # type: ignore[arg-type]
Parameters(outputs=["depth"])  # type: ignore[list-item]
Parameters(gains={"height": 1.0})  # type: ignore[dict-item]
Parameters().run = "cali"  # type: ignore[misc]
velostrix.reconstruct(images, blur=2)  # type: ignore[call-overload]
height = result["factor"]  # type: ignore[assignment]
