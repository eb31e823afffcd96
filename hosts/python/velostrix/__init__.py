"""Pictures of relief from 3 to 8 pictures of a part under different lamps.

::

    import velostrix
    result = velostrix.reconstruct(images)     # 3 to 8 arrays, uint8, one shape (rows, cols)
    result.curvature, result.height            # uint8 and uint16 arrays of the same shape

`reconstruct` does everything for one part. `Tool` keeps its memory from part to part, for a line.
"""
from typing import Mapping, Optional, Sequence, Tuple

import numpy as np

from .auto_gain import choose_gains
from .parameters import DEFAULT_OFFSETS, OUTPUTS, RUNS, Parameters
from .tool import Result, Timings, Tool, check_image

__all__ = [
    "OUTPUTS", "RUNS", "Parameters", "Result", "Timings", "Tool", "choose_gains", "reconstruct",
]


def reconstruct(
    images: Sequence[np.ndarray],
    run: str = "uncali",
    *,
    roi: Optional[Tuple[int, int, int, int]] = None,
    scale: float = 1.0,
    outputs: Sequence[str] = OUTPUTS,
    equalise: bool = False,
    difference: str = "central",
    blur: int = 0,
    iterations: int = 50,
    gains: Optional[Mapping[str, float]] = None,
    offsets: Optional[Mapping[str, int]] = None,
    band: int = 64,
) -> Result:
    """Reconstructs one part from 3 to 8 images of one scene under different lamps.

    images: uint8 arrays of one shape (rows, cols), at least 2 x 3; not changed.
    gains: grey levels per unit of the map, by output (``{"curvature": 300.0}``). Outputs without one
        get a gain that makes the image readable, found by 2 or 3 runs more; so, to compare parts,
        pass the gains and offsets of the first part's ``result.parameters`` for the next ones.
    offsets: grey levels added, by output; in place of the usual or the chosen offset.

    The other arguments are told in `Parameters`, the images and timings in `Result`.

    Raises ValueError or TypeError whose text begins with the argument's name, MemoryError when the
    buffers cannot be allocated. Other Python threads go on during the run.
    """
    parameters = Parameters(
        run, band, outputs, roi, scale, equalise, difference, blur, iterations, dict(gains or {}),
        dict(offsets or {}),
    )
    images = [np.asarray(image) for image in images]
    shape = images[0].shape if images else ()
    if images and len(shape) != 2:
        raise ValueError(f"images[0]: has shape {shape}; expected (rows, cols)")
    for k, image in enumerate(images):
        check_image(f"images[{k}]", image, shape)
    parameters.check(len(images), *(shape or (0, 0)))

    with Tool() as tool:
        given_offsets = parameters.offsets
        parameters = choose_gains(tool, images, parameters, keep=parameters.gains)
        parameters.offsets = {**DEFAULT_OFFSETS, **parameters.offsets, **given_offsets}
        tool.prepare(len(images), shape, parameters)
        for image in images:
            tool.set_image(image)
        return tool.run()
