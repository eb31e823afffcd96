"""What a run does: parameters with names, defaults and refusals that name the argument."""
import math
import numbers
from dataclasses import dataclass, field
from typing import Mapping, Optional, Sequence, Tuple

from . import _native

RUNS = ("uncali", "cali", "partrows", "partcols")
# In the order of the record's switches.
OUTPUTS = ("factor", "curvature", "magnitude", "height", "channel0", "channel1", "channel2", "normal")
CHANNELS = ("channel0", "channel1", "channel2")
# The outputs that a gain and an offset bring to grey levels.
SCALED_OUTPUTS = ("curvature", "magnitude") + CHANNELS

DEFAULT_GAINS = {
    "factor": 1.0,
    "curvature": 256.0,
    "magnitude": 256.0,
    "channel0": 128.0,
    "channel1": 128.0,
    "channel2": 127.0,
}
DEFAULT_OFFSETS = {"curvature": 128, "magnitude": 0, "channel0": 128, "channel1": 128, "channel2": 128}

_LARGEST_INT = 2**31 - 1


@dataclass
class Parameters:
    """Parameters of a run. Number and size of the images come from the images themselves.

    run: ``"uncali"`` (lamps unknown, whole frame), ``"cali"`` (the fixed ring of lamps),
        ``"partrows"`` or ``"partcols"`` (lamps unknown, pieces of `band` rows or columns).
    band: rows or columns of a piece; below 10 counts as 10.
    outputs: names of the images to make, from ``velostrix.OUTPUTS``; ``"normal"`` brings the three
        channels with it.
    roi: ``(x, y, width, height)`` in pixels, inside the images, at least 3 x 2; None = whole image.
    scale: above 0, at most 1. Below 0.99 the tool works on images scaled by it, unless that would
        leave 10 pixels or fewer; results come in full size.
    equalise: even out the column brightness of every image first.
    difference: ``"central"`` or ``"forward"`` differences of the slopes.
    blur: radius in pixels, 0 to 32767, of the smoothing of curvature and magnitude.
    iterations: of the height at most; 0 = flat, negative = as many as it takes.
    gains: grey levels per unit of the map, by output; factor: multiplies the normalised image.
    offsets: grey levels added, by output. What is not named has its default.
    """

    run: str = "uncali"
    band: int = 64
    outputs: Sequence[str] = OUTPUTS
    roi: Optional[Tuple[int, int, int, int]] = None
    scale: float = 1.0
    equalise: bool = False
    difference: str = "central"
    blur: int = 0
    iterations: int = 50
    gains: Mapping[str, float] = field(default_factory=dict)
    offsets: Mapping[str, int] = field(default_factory=dict)

    def gain(self, output: str) -> float:
        return float(self.gains.get(output, DEFAULT_GAINS[output]))

    def offset(self, output: str) -> int:
        return int(self.offsets.get(output, DEFAULT_OFFSETS[output]))

    def working_shape(self, rows: int, cols: int) -> Tuple[int, int]:
        """(rows, cols) that the tool works on for images of rows x cols."""
        if self.roi is not None:
            cols, rows = self.roi[2:]
        height, width = rows * self.scale, cols * self.scale
        is_scaled = self.scale < 0.99 and height > 10.0 and width > 10.0
        return (int(height), int(width)) if is_scaled else (rows, cols)

    def check(self, count: int, rows: int, cols: int) -> None:
        """Raises ValueError or TypeError when a run on `count` images of rows x cols would be
        refused."""
        if not 3 <= count <= 8:
            raise ValueError(f"images: {count} given; expected 3 to 8")
        _expect_member("run", self.run, RUNS)
        _expect_member("difference", self.difference, ("central", "forward"))
        if isinstance(self.outputs, str):
            raise TypeError(f"outputs: expected a sequence of names, such as ['{self.outputs}']")
        for output in self.outputs:
            _expect_member("outputs", output, OUTPUTS)
        _expect_int("band", self.band, -_LARGEST_INT, _LARGEST_INT)
        _expect_int("blur", self.blur, 0, 32767)
        _expect_int("iterations", self.iterations, -_LARGEST_INT, _LARGEST_INT)
        for output, gain in self.gains.items():
            _expect_member("gains", output, DEFAULT_GAINS)
            _expect_finite(f"gains[{output!r}]", gain)
        for output, offset in self.offsets.items():
            _expect_member("offsets", output, DEFAULT_OFFSETS)
            _expect_int(f"offsets[{output!r}]", offset, -_LARGEST_INT, _LARGEST_INT)
        _expect_finite("scale", self.scale)
        if not 0.0 < self.scale <= 1.0:
            raise ValueError(f"scale: {self.scale} given; expected above 0, at most 1")
        self._check_region(rows, cols)

    def _check_region(self, rows: int, cols: int) -> None:
        if self.roi is not None and len(self.roi) != 4:
            raise ValueError(f"roi: {self.roi} given; expected (x, y, width, height)")
        x, y, width, height = self.roi or (0, 0, cols, rows)
        for value in (x, y, width, height):
            _expect_int("roi", value, -_LARGEST_INT, _LARGEST_INT)
        if x < 0 or y < 0 or x + width > cols or y + height > rows:
            raise ValueError(f"roi: {self.roi} is not inside the images of {cols} x {rows} pixels")
        if width < 3 or height < 2:
            name = "roi" if self.roi else "images"
            raise ValueError(f"{name}: {width} x {height} pixels; expected at least 3 x 2")

    def record(self, count: int, rows: int, cols: int) -> _native.UnCalibrationParam:
        def scaling(output):
            return _native.OutputScaling(self.offset(output), self.gain(output))

        return _native.UnCalibrationParam(
            image_count=count,
            width=cols,
            height=rows,
            row_step=cols,
            output_enable=tuple(int(output in self.outputs) for output in OUTPUTS),
            scale=self.scale,
            difference_mode=int(self.difference == "forward"),
            blur_radius=self.blur,
            iteration_cap=self.iterations,
            factor_gain=self.gain("factor"),
            curvature=scaling("curvature"),
            magnitude=scaling("magnitude"),
            channel=tuple(scaling(channel) for channel in CHANNELS),
            equalise_on=int(self.equalise),
        )


def _expect_member(argument: str, value: object, choices) -> None:
    if value not in choices:
        raise ValueError(f"{argument}: {value!r} is unknown; expected one of {', '.join(choices)}")


def _expect_int(argument: str, value: object, low: int, high: int) -> None:
    if not isinstance(value, numbers.Integral):
        raise TypeError(f"{argument}: {value!r} given; expected an integer")
    if not low <= value <= high:
        raise ValueError(f"{argument}: {value} given; expected {low} to {high}")


def _expect_finite(argument: str, value: object) -> None:
    if not isinstance(value, numbers.Real):
        raise TypeError(f"{argument}: {value!r} given; expected a number")
    if not math.isfinite(value):
        raise ValueError(f"{argument}: {value} given; expected a finite number")
