"""The tool as a context manager: prepare once, then set images and run, part after part."""
import contextlib
import ctypes
import os
import threading
from dataclasses import dataclass
from typing import Iterable, Iterator, NoReturn, Optional, Sequence, Tuple, Union

import numpy as np
from numpy.typing import ArrayLike

from . import _native
from .images import Images, View, read_image
from .parameters import CHANNELS, OUTPUTS, Parameters, expect, integer, names_in, sequence
from .result import OrientationFound, Result, Timings


@dataclass(frozen=True)
class Exposure:
    """Exposure of one image."""

    saturated_share: float  #: share of the pixels (0 to 1) at level 255
    black_share: float  #: share of the pixels (0 to 1) at level 0
    mean_level: float  #: mean grey level
    is_dead: bool  #: dark all over: lamp dead or lens covered
    equal_to: Optional[int]  #: index of the first earlier image with the same pixels


@dataclass(frozen=True)
class Diagnostics:
    """Whether images are fit for reconstruction."""

    warnings: Tuple[str, ...]  #: each says what is wrong and what to do
    exposures: Tuple[Exposure, ...]  #: of each image
    #: singular values of the images x pixels matrix, descending, the first scaled to 1: the second and
    #: third say how much the lamps differ in one and in two directions
    singular_values: Tuple[float, ...]
    #: cali: share of the images (root mean square) that normals under the lamps of the run's ring do
    #: not explain; None for other runs and 3 images
    unexplained_by_ring: Optional[float]
    unexplained_by_any: Optional[float]  #: the same for lamps anywhere
    #: pixels by which each image is shifted against most; None: not measured, as without structure
    shifts: Tuple[Optional[float], ...]
    #: share of the curvature image's variance that is noise of the camera; None: not measured, as
    #: with a scale below 0.99
    noise_share: Optional[float]
    last_piece: int  #: partrows, partcols: rows or columns of the last piece; 0: no pieces


class Tool:
    """A reconstructor, which keeps its buffers from part to part.

    ::

        with velostrix.Tool() as tool:
            tool.prepare(count=4, shape=(480, 640), parameters=velostrix.Parameters(run="cali"))
            for frames in camera:
                for frame in frames:
                    tool.set_image(frame)
                result = tool.run()

    A tool takes about (52 + 5 count) bytes a pixel until it is closed. Use it from one thread at a
    time; separate tools are independent, and native calls release the interpreter lock.

    Raises TypeError or ValueError with the argument's name for wrong arguments, RuntimeError for a
    call out of order or while another thread is using the tool; the tool is then unchanged. After
    MemoryError prepare it again.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._reconstructor: Optional[_native.Reconstructor] = _native.Reconstructor()
        self._prepared = (0, Parameters(), 0)  # images, parameters, set of outputs

    def __enter__(self) -> "Tool":
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def __reduce_ex__(self, protocol: object) -> NoReturn:
        raise TypeError("a Tool cannot be copied or pickled; make one for each thread or process")

    def close(self) -> None:
        """Frees all memory, or as soon as no view of a result is left; a second call does nothing."""
        self._reconstructor = None

    @contextlib.contextmanager
    def _alone(self) -> Iterator[_native.Reconstructor]:
        """The reconstructor, for this thread alone."""
        if not self._lock.acquire(blocking=False):
            _native.refuse(_native.BUSY)
        try:
            if self._reconstructor is None:
                raise RuntimeError("the tool is closed; make another one")
            yield self._reconstructor
        finally:
            self._lock.release()

    def set_mask(self, mask: Optional[ArrayLike]) -> None:
        """From now on leaves out the pixels where the mask (uint8, of the shape of the images) is 0;
        None: no pixel. They do not count for gains and diagnostics; in the results they are 128, in
        the height 0. `prepare` comes next."""
        with self._alone() as native:
            if mask is None:
                native.call("SetMask", None)
                return
            _array, record = read_image("mask", mask)
            native.call("SetMask", ctypes.byref(record))

    def mask_unlit(
        self, images: Iterable[ArrayLike], parameters: Parameters = Parameters()
    ) -> float:
        """Leaves out the pixels that no lamp lights, such as a black background; of the parameters only
        white, bits and flat are used. Returns the share of the pixels that is not left out."""
        given = Images(images)
        settings = _settings_of(parameters)
        kept = ctypes.c_double()
        with self._alone() as native:
            native.call("MaskUnlit", given.records, len(given.records), ctypes.byref(settings),
                        ctypes.byref(kept))
        return kept.value

    def prepare(
        self, count: int, shape: Sequence[int], parameters: Parameters = Parameters()
    ) -> None:
        """Prepares the tool for `count` (3 to 8) images of `shape` = (rows, cols) and for the
        parameters; forgets images set so far. Allocates only when count, shape, region or scale
        change.
        """
        text = "(rows, cols)"
        size = tuple(integer("shape", side) for side in sequence("shape", shape, text))
        if len(size) != 2:
            raise ValueError(f"shape: {shape!r} given; expected {text}")
        settings = _settings_of(parameters)
        with self._alone() as native:
            native.call("Prepare", integer("count", count), size[1], size[0], ctypes.byref(settings))
            self._prepared = (count, parameters, settings.outputs)

    def set_image(self, image: ArrayLike) -> None:
        """Copies the next image into the tool: uint8, or uint16 with the parameters' bits, of shape
        (rows, cols). There may be gaps between rows, as in a slice of a larger image; an array with
        gaps between pixels is made contiguous first.
        """
        _array, record = read_image("image", image)  # the array has the memory of the record
        with self._alone() as native:
            native.call("SetImage", ctypes.byref(record))

    def clear_images(self) -> None:
        """Forgets the images set so far, to start the part again."""
        with self._alone() as native:
            native.call("ClearImages")

    def run(self, copy: bool = True) -> Result:
        """Runs on the images, all of which must be set, and forgets them.

        copy: False gives read-only arrays over the tool's memory. They keep that memory alive, but
            are valid only until the next call of `run`, `reconstruct`, `prepare` or `choose_gains`.
        """
        with self._alone() as native:
            native.call("Run")
            return self._result(native, copy)

    def reconstruct(
        self, images: Iterable[ArrayLike], parameters: Parameters = Parameters(), copy: bool = True
    ) -> Result:
        """`prepare`, `set_image` for each image and `run`."""
        given = Images(images)
        settings = _settings_of(parameters)
        with self._alone() as native:
            native.call(
                "Reconstruct", given.records, len(given.records), ctypes.byref(settings))
            self._prepared = (len(given.records), parameters, settings.outputs)
            return self._result(native, copy)

    def choose_gains(
        self, images: Iterable[ArrayLike], parameters: Parameters = Parameters()
    ) -> Parameters:
        """The parameters with gain and offset chosen for these images, for every output that they
        request and have no gain for. Factor, normal and height need none.

        Without the outermost percent on each side, the values fill grey levels 16 to 240 around 128;
        those of the magnitude fill 0 to 240. So does channel 2 when all its values have one sign (a
        brightness), by a negative gain if necessary. A flat map gets the gain that suits usual relief.

        Makes pilot runs without height: 2 or 3 as a rule, 8 at most. Choose once for a kind of part and
        keep the parameters: only results with equal gains can be compared. `prepare` comes next.
        """
        given = Images(images)
        settings = _settings_of(parameters)
        with self._alone() as native:
            native.call(
                "ChooseGains", given.records, len(given.records), ctypes.byref(settings))
        return Parameters.from_settings(settings)

    def diagnose(
        self,
        images: Iterable[ArrayLike],
        parameters: Parameters = Parameters(),
        names: Optional[Sequence[Union[str, "os.PathLike[str]"]]] = None,
    ) -> Diagnostics:
        """Measures the region of the images. Of the parameters only region, run, band, scale,
        blur_radius, bits, white and flat are used. Images set and what was prepared are unchanged.

        names: what warnings call the images, such as file names; None: "image 1" and so on.
        """
        given = Images(images)
        count = len(given.records)
        c_names = None
        if names is not None:
            listed = sequence("names", names, "a sequence of names")
            if len(listed) != count:
                raise ValueError(f"names: {len(listed)} given for {count} images")
            for name in listed:
                expect("names", name, (str, os.PathLike), "names or paths")
            c_names = (ctypes.c_char_p * count)(*map(os.fsencode, listed))
        settings = _settings_of(parameters)
        found = _native.Diagnostics(struct_size=ctypes.sizeof(_native.Diagnostics))
        with self._alone() as native:
            native.call("Diagnose", given.records, count, ctypes.byref(settings), c_names,
                        ctypes.byref(found))
            warnings = []
            for k in range(found.warning_count):
                message = _native.Message()
                native.call("Warning", k, ctypes.byref(message))
                warnings.append(_native.text_of(message))
        return Diagnostics(
            tuple(warnings),
            tuple(
                Exposure(e.saturated_share, e.black_share, e.mean_level, bool(e.is_dead),
                         None if e.equal_to < 0 else e.equal_to)
                for e in found.exposures[:count]
            ),
            tuple(found.singular_values[:count]),
            _told(found.unexplained_by_ring),
            _told(found.unexplained_by_any),
            tuple(map(_told, found.shifts[:count])),
            _told(found.noise_share),
            found.last_piece,
        )

    def _result(self, native: _native.Reconstructor, copy: bool) -> Result:
        count, parameters, outputs = self._prepared
        times = _native.Times()
        native.call("Times", ctypes.byref(times))
        found = _native.Orientation(struct_size=ctypes.sizeof(_native.Orientation))
        native.call("Orientation", ctypes.byref(found))
        made = {*names_in(outputs, OUTPUTS)}
        if "normal" in made:
            made.update(CHANNELS)
        views = {name: np.asarray(View(native, OUTPUTS.index(name))) for name in made}
        return Result(
            parameters,
            Timings(times.parameters, times.buffers, tuple(times.images[:count]), times.run),
            OrientationFound(
                None if found.curl_as_is < 0 else found.curl_as_is,
                None if found.curl_mirrored < 0 else found.curl_mirrored,
                bool(found.is_clear), bool(found.is_mirrored), bool(found.is_turned),
                bool(found.is_inverted), bool(found.is_sign_open),
                bool(found.has_mirrored_curvature), found.turn),
            {name: view.copy() if copy else view for name, view in views.items()},
        )


def fit_flat(
    references: Iterable[ArrayLike], parameters: Parameters = Parameters()
) -> Parameters:
    """The parameters with flat fields, by which the images are divided. This evens out light that falls
    off across the image, and lamps of different brightness.

    references: images of a flat, matt part, one under each lamp, in the order of the images. The
        fields are smooth: stains and dust on the flat part have no effect.

    Raises ValueError for references that are saturated or dark.
    """
    given = Images(references)
    settings = _settings_of(parameters)
    _native.call_with_message(
        "FitFlat", given.records, len(given.records), ctypes.byref(settings))
    return Parameters.from_settings(settings)


def _told(number: float) -> Optional[float]:
    return None if number < 0 else number


def _settings_of(parameters: Parameters) -> _native.Settings:
    expect("parameters", parameters, Parameters, "velostrix.Parameters")
    return parameters.settings()
