"""The parameters of a run, with names and defaults; reads and writes recipes."""
import ctypes
import operator
import os
import pathlib
from dataclasses import dataclass, field
from typing import (
    Any, Collection, Iterable, Literal, Mapping, Optional, Sequence, Tuple, Type, TypeVar, Union,
    get_args)

import numpy as np

from . import _native

Run = Literal["uncali", "cali", "partrows", "partcols"]
Difference = Literal["central", "forward"]
Orientation = Literal["as-is", "upright"]
Surface = Literal["plane", "quadratic"]
ByteOutput = Literal[
    "factor", "curvature", "magnitude", "channel0", "channel1", "channel2", "normal"]
Output = Literal[ByteOutput, Literal["height"]]
ScaledOutput = Literal["curvature", "magnitude", "channel0", "channel1", "channel2"]
GainOutput = Literal[Literal["factor"], ScaledOutput]

# All in the order of velostrix_host's numbers.
RUNS: Tuple[Run, ...] = get_args(Run)
DIFFERENCES: Tuple[Difference, ...] = get_args(Difference)
ORIENTATIONS: Tuple[Orientation, ...] = get_args(Orientation)
SURFACES: Tuple[Surface, ...] = get_args(Surface)
OUTPUTS: Tuple[Output, ...] = (
    "factor", "curvature", "magnitude", "height", "channel0", "channel1", "channel2", "normal")
CHANNELS: Tuple[Output, ...] = ("channel0", "channel1", "channel2")
_WITH_OFFSET: Tuple[ScaledOutput, ...] = get_args(ScaledOutput)
_WITH_GAIN: Tuple[GainOutput, ...] = get_args(GainOutput)

_T = TypeVar("_T")


def expect(argument: str, value: object, kind: Union[type, Tuple[type, ...]], text: str) -> None:
    if not isinstance(value, kind):
        raise TypeError(f"{argument}: {value!r} given; expected {text}")


def integer(argument: str, value: object) -> int:
    """The value as a C integer of 32 bits."""
    try:
        number = operator.index(value)  # type: ignore[arg-type]  # what it is for
    except TypeError:
        raise TypeError(f"{argument}: {value!r} given; expected an integer") from None
    if not -(2**31) <= number < 2**31:
        raise ValueError(f"{argument}: {number} given; expected an integer of 32 bits")
    return number


def _number(argument: str, value: object) -> float:
    expect(argument, value, (int, float, np.integer, np.floating), "a number")
    try:
        return float(value)  # type: ignore[arg-type]  # just seen to
    except OverflowError:
        raise ValueError(f"{argument}: {value} given; expected a finite number") from None


def index(argument: str, value: object, names: Sequence[object]) -> int:
    expect(argument, value, str, f"one of {', '.join(map(str, names))}")
    if value not in names:
        expected = ", ".join(map(str, names))
        raise ValueError(f"{argument}: {value!r} is unknown; expected one of {expected}")
    return names.index(value)


def sequence(argument: str, values: Iterable[_T], text: str) -> Tuple[_T, ...]:
    try:
        if isinstance(values, (str, bytes)):
            raise TypeError
        return tuple(values)
    except TypeError:
        raise TypeError(f"{argument}: {values!r} given; expected {text}") from None


def _set_of(argument: str, outputs: Iterable[object], names: Sequence[Output]) -> int:
    return sum({1 << OUTPUTS.index(names[index(argument, name, names)]) for name in outputs})


def names_in(bits: int, names: Sequence[Any]) -> Tuple[Any, ...]:
    return tuple(name for name in names if bits >> OUTPUTS.index(name) & 1)


@dataclass(frozen=True)
class Parameters:
    """Parameters of a run. Number and size of the images come from the images themselves. To change
    some: ``dataclasses.replace(parameters, run="cali")``. Wrong values raise at their first use.
    """

    #: ``"uncali"`` (lamps unknown, whole frame), ``"cali"`` (the fixed ring of lamps), ``"partrows"``
    #: or ``"partcols"`` (lamps unknown, pieces of `band` rows or columns)
    run: Run = "uncali"
    #: rows or columns of a piece; below 10 counts as 10
    band: int = 64
    #: images to make; ``"normal"`` also makes the three channels
    outputs: Sequence[Output] = OUTPUTS
    #: ``(x, y, width, height)`` in pixels, inside the images, at least 3 x 2; None = whole image
    region: Optional[Tuple[int, int, int, int]] = None
    #: above 0, at most 1. Below 0.99 the tool works on images scaled by it, unless that would leave
    #: 10 pixels or fewer; results have full size
    scale: float = 1.0
    #: even out the column brightness of every image first
    equalise: bool = False
    #: differences of the slopes; ignored by the partial runs
    difference: Difference = "central"
    #: pixels, 0 to 32767: smoothing of curvature and magnitude
    blur_radius: int = 0
    #: of the height; 0 = flat, negative = until it converges
    iteration_cap: int = 50
    #: runs with unknown lamps: ``"upright"`` measures and corrects mirrored or turned slopes and, with
    #: `lamp`, their sign; ``"as-is"`` leaves them unchanged
    orientation: Orientation = "as-is"
    #: index of an image and the rough direction of its lamp in the images, in degrees: 0 from the
    #: right, 90 from above, 180 from the left; determines the sign when upright
    lamp: Optional[Tuple[int, float]] = None
    #: bits in use of uint16 images, 8 to 16; 0: not given
    bits: int = 0
    #: grey levels per unit of the map, by output; factor: multiplies the normalised image. Gains that
    #: are missing are chosen by `velostrix.reconstruct`, and have defaults in `Tool`
    gains: Mapping[GainOutput, float] = field(default_factory=dict)
    #: grey level of value 0, by output; when missing, as for gains
    offsets: Mapping[ScaledOutput, int] = field(default_factory=dict)
    #: the sample of uint16 images that is white, 1 to 65535; 0: 2**bits - 1. Without either, uint16
    #: images are refused
    white: int = 0
    #: flat fields of the lamps, which their images are divided by; made by `fit_flat`
    flat: Sequence[Sequence[float]] = ()

    @classmethod
    def from_json(cls: Type["Parameters"], recipe: Union[str, bytes]) -> "Parameters":
        """The parameters of a recipe, or of the run.json of a run. Missing fields have their defaults.

        Raises ValueError, which names the field, when the text is not a recipe.
        """
        expect("recipe", recipe, (str, bytes), "the text of a recipe")
        text = recipe.encode() if isinstance(recipe, str) else recipe
        settings = new_settings()
        _native.call_with_message(
            "SettingsFromJson", text, ctypes.c_int64(len(text)), ctypes.byref(settings))
        return cls.from_settings(settings)

    def to_json(self) -> str:
        """The text of a recipe, with the gains and offsets that are given."""
        text = ctypes.create_string_buffer(_native.LONGEST_RECIPE)
        _native.call_with_message(
            "SettingsToJson", ctypes.byref(self.settings()), text, ctypes.c_int64(len(text)), None)
        return text.value.decode()

    @classmethod
    def load(cls: Type["Parameters"], path: Union[str, "os.PathLike[str]"]) -> "Parameters":
        """Reads a recipe file: one of `save`, or run.json or --save-recipe of the command line."""
        expect("path", path, (str, os.PathLike), "the path of a recipe")
        try:
            return cls.from_json(pathlib.Path(path).read_bytes())
        except ValueError as error:
            raise ValueError(f"{os.fspath(path)}: {error}") from None

    def save(self, path: Union[str, "os.PathLike[str]"]) -> None:
        """Writes a recipe file, for `load` and for ``velostrix reconstruct --recipe``."""
        expect("path", path, (str, os.PathLike), "the path of a recipe")
        pathlib.Path(path).write_text(self.to_json(), encoding="utf-8")

    def settings(self) -> _native.Settings:
        """The record of velostrix_host."""
        record = new_settings()
        record.run = index("run", self.run, RUNS)
        expect("outputs", self.outputs, Collection, "a sequence of names")
        outputs = sequence("outputs", self.outputs, "a sequence of names")
        record.outputs = _set_of("outputs", outputs, OUTPUTS)
        expect("equalise", self.equalise, (bool, np.bool_), "True or False")
        record.equalise = bool(self.equalise)
        record.scale = _number("scale", self.scale)
        record.difference = index("difference", self.difference, DIFFERENCES)
        record.orientation = index("orientation", self.orientation, ORIENTATIONS)
        if self.lamp is not None:
            lamp = sequence("lamp", self.lamp, "(image, degrees)")
            if len(lamp) != 2:
                raise ValueError(f"lamp: {self.lamp!r} given; expected (image, degrees)")
            record.lamp = integer("lamp", lamp[0])
            record.lamp_degrees = _number("lamp", lamp[1])
        for name in ("band", "blur_radius", "iteration_cap", "bits", "white"):
            setattr(record, name, integer(name, getattr(self, name)))
        text = f"at most {_native.MOST_IMAGES} fields of {_native.FLAT_TERMS} numbers"
        flat = [sequence("flat", lamp, text) for lamp in sequence("flat", self.flat, text)]
        if len(flat) > _native.MOST_IMAGES or any(len(f) != _native.FLAT_TERMS for f in flat):
            raise ValueError(f"flat: {self.flat!r} given; expected {text}")
        record.flat_count = len(flat)
        for k, lamp in enumerate(flat):
            record.flat[k] = tuple(_number("flat", value) for value in lamp)
        if self.region is not None:
            text = "(x, y, width, height)"
            region = sequence("region", self.region, text)
            if len(region) != 4:
                raise ValueError(f"region: {self.region!r} given; expected {text}")
            record.has_region = 1
            record.region = tuple(integer("region", value) for value in region)
        expect("gains", self.gains, Mapping, "a mapping from output to number")
        expect("offsets", self.offsets, Mapping, "a mapping from output to integer")
        record.kept_gains = _set_of("gains", self.gains, _WITH_GAIN)
        record.kept_offsets = _set_of("offsets", self.offsets, _WITH_OFFSET)
        for output, gain in self.gains.items():
            record.gain[OUTPUTS.index(output)] = _number(f"gains[{output!r}]", gain)
        for scaled, offset in self.offsets.items():
            record.offset[OUTPUTS.index(scaled)] = integer(f"offsets[{scaled!r}]", offset)
        return record

    @classmethod
    def from_settings(cls: Type["Parameters"], record: _native.Settings) -> "Parameters":
        region = record.region
        plain = ("band", "scale", "blur_radius", "iteration_cap", "bits", "white")
        return cls(
            run=RUNS[record.run],
            outputs=names_in(record.outputs, OUTPUTS),
            region=(region.x, region.y, region.width, region.height) if record.has_region else None,
            equalise=bool(record.equalise),
            difference=DIFFERENCES[record.difference],
            orientation=ORIENTATIONS[record.orientation],
            lamp=None if record.lamp < 0 else (record.lamp, record.lamp_degrees),
            gains={
                output: record.gain[OUTPUTS.index(output)]
                for output in names_in(record.kept_gains, _WITH_GAIN)
            },
            offsets={
                output: record.offset[OUTPUTS.index(output)]
                for output in names_in(record.kept_offsets, _WITH_OFFSET)
            },
            flat=tuple(tuple(lamp) for lamp in record.flat[: record.flat_count]),
            **{name: getattr(record, name) for name in plain},
        )


def new_settings() -> _native.Settings:
    settings = _native.Settings(struct_size=ctypes.sizeof(_native.Settings))
    _native.call("SettingsDefaults", ctypes.byref(settings))
    return settings
