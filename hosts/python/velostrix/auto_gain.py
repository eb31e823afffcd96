"""Gains that make the result images readable without tuning, by the same search as in C++."""
import math
from dataclasses import dataclass, replace
from typing import Collection, Sequence, Tuple

import numpy as np

from .parameters import CHANNELS, SCALED_OUTPUTS, Parameters
from .tool import Tool

_STRIDE = 16.0
_READABLE_REACH = 4
_PRECISE_REACH = 32  # one level is 3 percent
_MOST_GROWTH = 256.0  # what is flatter yet is quantisation, not relief
_WHOLE_RANGE = 240.0
_MOST_PILOTS = 8


def _measure_reach(image: np.ndarray, zero_level: int) -> Tuple[int, int]:
    """How far the levels lie below and above zero_level, the outermost percent on each side left
    out."""
    histogram = np.bincount(image.ravel(), minlength=256)
    percent = image.size // 100
    low = int(np.argmax(np.cumsum(histogram) > percent))
    high = 255 - int(np.argmax(np.cumsum(histogram[::-1]) > percent))
    return max(0, zero_level - low), max(0, high - zero_level)


@dataclass
class _Search:
    """The search for the gain of one output."""

    output: str
    usual_gain: float
    gain: float
    zero_level: int  # offset of the pilots
    reach: Tuple[int, int] = (0, 0)
    is_readable: bool = False
    is_done: bool = False

    def learn(self, image: np.ndarray) -> None:
        self.reach = _measure_reach(image, self.zero_level)
        widest = max(self.reach)
        is_saturated = widest >= 255 - self.zero_level
        self.is_readable = not is_saturated and widest >= _READABLE_REACH
        if self.is_readable:
            self.is_done = widest >= _PRECISE_REACH
            self.gain *= (240 - self.zero_level) / widest
        elif is_saturated:
            self.gain /= _STRIDE
        elif self.gain >= _MOST_GROWTH * self.usual_gain:
            self.is_done = True
        else:
            self.gain *= _STRIDE

    def found(self) -> Tuple[float, int]:
        if not self.is_readable:
            return self.usual_gain, self.zero_level
        if self.output != "channel2" or min(self.reach) > 0:
            return self.gain, self.zero_level
        sign = 1.0 if self.reach[1] > 0 else -1.0
        return self.gain * _WHOLE_RANGE / (240 - self.zero_level) * sign, 0


def choose_gains(
    tool: Tool, images: Sequence[np.ndarray], parameters: Parameters, keep: Collection[str] = ()
) -> Parameters:
    """Returns the parameters with gain and offset of every output that they ask for chosen for these
    images, but for those to keep (factor, normal and height have nothing to choose).

    Without the outermost percent on each side, values fill grey levels 16 to 240 around 128, those of
    the magnitude 0 to 240. Channel 2, when all its values have one sign, is a brightness and fills 0
    to 240 too, by a negative gain if need be. A flat map keeps the gain that suits usual relief.

    Does this by pilot runs without height, 2 or 3 as a rule and 8 at most. Choose once for a kind of
    part and keep the parameters: only under equal gains can parts be compared.
    """
    rows, cols = parameters.working_shape(*images[0].shape)
    wanted = set(parameters.outputs) | set(CHANNELS if "normal" in parameters.outputs else ())
    searches = []
    for output in (o for o in SCALED_OUTPUTS if o in wanted and o not in keep):
        # A singular vector has unit length.
        is_unit_vector = output == "channel2" and parameters.run != "cali"
        usual = 64.0 * math.sqrt(rows * cols) if is_unit_vector else 128.0
        searches.append(_Search(output, usual, usual, 0 if output == "magnitude" else 128))

    for _ in range(_MOST_PILOTS):
        open_searches = [search for search in searches if not search.is_done]
        if not open_searches:
            break
        pilot = replace(
            parameters,
            outputs=[search.output for search in open_searches],
            gains={search.output: search.gain for search in open_searches},
            offsets={search.output: search.zero_level for search in open_searches},
        )
        tool.prepare(len(images), images[0].shape, pilot)
        for image in images:
            tool.set_image(image)
        result = tool.run(copy=False)
        for search in open_searches:
            search.learn(result[search.output])

    found = {search.output: search.found() for search in searches}
    return replace(
        parameters,
        gains={**parameters.gains, **{output: gain for output, (gain, _) in found.items()}},
        offsets={**parameters.offsets, **{output: offset for output, (_, offset) in found.items()}},
    )
