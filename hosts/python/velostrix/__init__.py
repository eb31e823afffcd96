"""Surface relief by photometric stereo, from 3 to 8 images of a part under different lamps.

::

    import velostrix
    result = velostrix.reconstruct(images)     # 3 to 8 arrays, uint8, one shape (rows, cols)
    result.curvature, result.height            # uint8 and uint16 arrays of the same shape

`reconstruct` does everything for one part. `Tool` keeps its memory from part to part.
"""
import dataclasses
import os
from typing import Any, Iterable, Mapping, Optional, Sequence, Tuple, Union, overload

from numpy.typing import ArrayLike

from . import _native
from .cluster import batch
from .images import image_files
from .parameters import (
    OUTPUTS, RUNS, Difference, GainOutput, Orientation, Output, Parameters, Run, ScaledOutput,
    expect, integer, sequence)
from .result import OrientationFound, Result, Timings
from .tool import Diagnostics, Exposure, Tool, fit_flat

__all__ = [
    "OUTPUTS", "RUNS", "Diagnostics", "Exposure", "OrientationFound", "Parameters", "Result",
    "Timings", "Tool", "batch", "diagnose", "fit_flat", "image_files", "reconstruct", "set_threads",
    "threads",
]
__version__: str = _native.call("LibraryVersion").decode()


@overload
def reconstruct(images: Iterable[ArrayLike], parameters: Parameters) -> Result: ...


@overload
def reconstruct(
    images: Iterable[ArrayLike],
    *,
    run: Run = ...,
    band: int = ...,
    outputs: Sequence[Output] = ...,
    region: Optional[Tuple[int, int, int, int]] = ...,
    scale: float = ...,
    equalise: bool = ...,
    difference: Difference = ...,
    blur_radius: int = ...,
    iteration_cap: int = ...,
    orientation: Orientation = ...,
    lamp: Optional[Tuple[int, float]] = ...,
    bits: int = ...,
    gains: Mapping[GainOutput, float] = ...,
    offsets: Mapping[ScaledOutput, int] = ...,
    white: int = ...,
    flat: Sequence[Sequence[float]] = ...,
) -> Result: ...


def reconstruct(
    images: Iterable[ArrayLike], parameters: Parameters = Parameters(), **changes: Any
) -> Result:
    """Reconstructs one part from 3 to 8 images of one scene under different lamps.

    images: uint8 arrays of one shape (rows, cols), or uint16 with `bits` or `white`; not changed.
    parameters, or their fields by name: see `Parameters`. 2 or 3 more runs choose a gain for every
        output without one, so that its image is readable. To compare parts, pass
        ``result.parameters`` of the first part for the others.

    Raises TypeError or ValueError with the argument's name, MemoryError when memory runs out. Other
    Python threads continue during the run.
    """
    given = sequence("images", images, "a sequence of 3 to 8 arrays")
    expect("parameters", parameters, Parameters, "velostrix.Parameters")
    parameters = dataclasses.replace(parameters, **changes)
    with Tool() as tool:
        return tool.reconstruct(given, tool.choose_gains(given, parameters))


def diagnose(
    images: Iterable[ArrayLike],
    parameters: Parameters = Parameters(),
    names: Optional[Sequence[Union[str, "os.PathLike[str]"]]] = None,
) -> Diagnostics:
    """Checks whether images are fit for reconstruction: see `Tool.diagnose`."""
    with Tool() as tool:
        return tool.diagnose(images, parameters, names)


def set_threads(count: int) -> None:
    """Sets how many threads the height may use in this process: 1 = the caller alone, 0 = one for each
    core. This is OpenCV's number of threads, which also holds for other modules that use OpenCV."""
    if _native.call("SetThreads", integer("count", count)):
        raise ValueError(f"count: {count} given; expected 0 or more")


def threads() -> int:
    """The number of threads in force, at least 1."""
    count: int = _native.call("Threads")
    return count
