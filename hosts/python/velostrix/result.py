"""The result of a run: its images, and how they are displayed."""
import ctypes
import os
from dataclasses import dataclass
from typing import Any, Dict, Iterable, Iterator, Literal, Optional, Tuple, Union, overload

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _native, pages
from .images import read_image
from .parameters import OUTPUTS, SURFACES, ByteOutput, Output, Parameters, Surface, index, integer


@dataclass(frozen=True)
class Timings:
    """How long the calls of a part took, in milliseconds."""

    parameters: float  #: parameters and region
    buffers: float  #: allocating the buffers, perhaps for an earlier part
    images: Tuple[float, ...]  #: setting each image
    run: float


@dataclass(frozen=True)
class OrientationFound:
    """The orientation of a part's slopes, and how results were corrected."""

    #: share (0 to 1/2) of the slopes' derivatives that fits no surface: near 0 for the slopes of a
    #: surface; None: not measured, as for as-is and calibrated runs
    curl_as_is: Optional[float]
    curl_mirrored: Optional[float]  #: the same for the mirrored slopes
    is_clear: bool  #: the two shares differ enough to decide
    is_mirrored: bool  #: slopes were mirrored; the run was made on flipped images
    is_turned: bool  #: by about a quarter turn; images were transposed, channels swapped
    is_inverted: bool  #: slopes had the opposite sign; height and slopes were negated
    is_sign_open: bool  #: no lamp's direction is known: bumps may appear as dents
    has_mirrored_curvature: bool  #: curvature is from mirrored slopes, where it shows more
    turn: float  #: degrees, counterclockwise, by which the slopes remain turned


class Result:
    """The images of a run, those that were requested, as attributes.

    All have the shape (rows, cols) of the region or, without one, of the inputs, and hold uint8;
    `normal` has (rows, cols, 3), channels 0, 1, 2; `height` holds uint16. ``result["height"]`` is
    ``result.height``; iterating gives the names of the images that were made.
    """

    parameters: Parameters  #: with the gains and offsets that were chosen
    timings: Timings
    orientation: OrientationFound
    factor: NDArray[np.uint8]  #: brightness (cali: albedo)
    curvature: NDArray[np.uint8]  #: where slopes change
    magnitude: NDArray[np.uint8]  #: changes of slope without sign
    channel0: NDArray[np.uint8]  #: slope along the rows (cali: normal x)
    channel1: NDArray[np.uint8]  #: slope across the rows (cali: normal y)
    channel2: NDArray[np.uint8]  #: brightness (cali: normal z)
    normal: NDArray[np.uint8]  #: the three channels in one image
    #: relative height: 0 is the lowest and 65535 the highest place of this image, border included.
    #: Differences have no unit; compare them within an image, not between images
    height: NDArray[np.uint16]

    def __init__(
        self, parameters: Parameters, timings: Timings, orientation: OrientationFound,
        images: Dict[str, NDArray[Any]]
    ) -> None:
        self.parameters = parameters
        self.timings = timings
        self.orientation = orientation
        vars(self).update(images)

    def _refusal(self, name: str) -> str:
        return f"{name!r} was not made, only {', '.join(self)}; ask for it in outputs"

    def __getattr__(self, name: str) -> Any:
        raise AttributeError(self._refusal(name) if name in OUTPUTS else f"Result has no {name!r}")

    @overload
    def __getitem__(self, name: Literal["height"]) -> NDArray[np.uint16]: ...

    @overload
    def __getitem__(self, name: ByteOutput) -> NDArray[np.uint8]: ...

    @overload
    def __getitem__(self, name: str) -> NDArray[Union[np.uint8, np.uint16]]: ...

    def __getitem__(self, name: str) -> NDArray[Any]:
        if name not in self:
            raise KeyError(self._refusal(name))
        image: NDArray[Any] = vars(self)[name]
        return image

    def height_view(
        self, removed: Surface = "quadratic", border: Optional[int] = None,
        mask: Optional[ArrayLike] = None
    ) -> NDArray[np.uint8]:
        """The height for display: 8 bits, without tilt and bowl; all but the outermost half percent
        on each side fill the levels.

        removed: the surface, fitted by least squares, that is subtracted: ``"plane"`` or
            ``"quadratic"``.
        border: pixels on each side that surface and range are measured without, at most an eighth of
            the shorter side; None: iteration_cap / scale.
        mask: uint8, of the shape of the height; pixels where it is 0 are left out of surface and
            range, and black.
        """
        if border is None:
            cap = self.parameters.iteration_cap
            border = 2**31 - 1 if cap < 0 else min(2**31 - 1, int(cap / self.parameters.scale))
        height, record = read_image("height", self["height"])
        view = np.empty(height.shape, np.uint8)
        kept = None if mask is None else read_image("mask", mask)
        _native.call_with_message(
            "ViewHeight", ctypes.byref(record), index("removed", removed, SURFACES),
            integer("border", border), None if kept is None else ctypes.byref(kept[1]), view.ctypes.data_as(ctypes.c_void_p), ctypes.c_int64(0),
            ctypes.c_int64(view.nbytes), None)
        return view

    def __contains__(self, name: object) -> bool:
        return name in OUTPUTS and name in vars(self)

    def __iter__(self) -> Iterator[Output]:
        return (name for name in OUTPUTS if name in vars(self))

    def items(self) -> Iterator[Tuple[Output, NDArray[Any]]]:
        return ((name, self[name]) for name in self)

    def __repr__(self) -> str:
        sizes = [f"{image.shape[1]} x {image.shape[0]}" for _, image in self.items()]
        gains = [f"{name} {gain:.4g}" for name, gain in self.parameters.gains.items()]
        return (
            f"velostrix.Result: {self.parameters.run}, {(sizes or ['no'])[0]} pixels, "
            f"{self.timings.run:.1f} ms\n"
            f"  images: {', '.join(self) or 'none'}\n"
            f"  gains: {', '.join(gains) or 'those of the library'}"
        )

    def _repr_html_(self) -> Optional[str]:
        """For Jupyter, below 1 MB: the surface under a lamp that the reader moves, and the images,
        reduced. None, so that the text is shown, without PIL."""
        try:
            return pages.for_notebook(self)
        except ImportError:
            return None

    def report(
        self, path: Union[str, "os.PathLike[str]"], images: Iterable[ArrayLike] = (),
        program: str = "velostrix"
    ) -> None:
        """Writes the page that ``velostrix report`` writes, one file that opens in any browser:
        relighting, 3-D view, profiles, histograms, diagnosis, parameters.

        path: of the page; its name without the suffix is the title.
        images: those that were reconstructed, to show and diagnose them too.
        program: the command line, which writes the page.

        Needs PIL. Raises FileNotFoundError without the program, RuntimeError with what it says.
        """
        pages.write_report(self, path, images, program)
