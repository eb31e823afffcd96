"""The tool as a context manager: prepare once, then set images and run, part after part."""
import ctypes
import time
from dataclasses import dataclass, field, replace
from typing import Dict, Iterator, List, Optional

import numpy as np

from . import _native
from .parameters import CHANNELS, OUTPUTS, Parameters

# Positions of the images among the arguments of a run.
_RUN_ARGUMENTS = (
    "factor", "curvature", "magnitude", "channel0", "channel1", "channel2", "normal", "height",
)
_EIGHT_BIT_ONE_CHANNEL = 1  # type code of an image record
_PIXEL_TYPES = {0: (np.uint8, 1), 2: (np.uint16, 1), 16: (np.uint8, 3)}  # by OpenCV's number


@dataclass
class Timings:
    """How long the calls took, in milliseconds."""

    parameters: float = 0.0  #: parameters and region
    buffers: float = 0.0  #: allocating those in use, perhaps for an earlier part
    images: List[float] = field(default_factory=list)  #: setting each image
    run: float = 0.0


@dataclass
class Result:
    """The images of a run; those that were not asked for are None.

    All have the shape (rows, cols) of the region or, without one, of the inputs, and hold uint8;
    `normal` has (rows, cols, 3), channels 0, 1, 2; `height` holds uint16. ``result["height"]`` is
    ``result.height``; iterating gives the names of the images that were made.
    """

    parameters: Parameters  #: with the gains and offsets that were used
    timings: Timings
    factor: Optional[np.ndarray] = None  #: brightness (cali: albedo)
    curvature: Optional[np.ndarray] = None  #: where slopes change
    magnitude: Optional[np.ndarray] = None  #: the same without sign
    channel0: Optional[np.ndarray] = None  #: slope along the rows (cali: normal x)
    channel1: Optional[np.ndarray] = None  #: slope across the rows (cali: normal y)
    channel2: Optional[np.ndarray] = None  #: brightness (cali: normal z)
    normal: Optional[np.ndarray] = None  #: the three channels in one image
    height: Optional[np.ndarray] = None  #: relative height over the full 16-bit range

    def __getitem__(self, name: str) -> np.ndarray:
        image = getattr(self, name) if name in OUTPUTS else None
        if image is None:
            raise KeyError(f"{name!r}: no such image was made; expected one of {', '.join(self)}")
        return image

    def __iter__(self) -> Iterator[str]:
        return (name for name in OUTPUTS if getattr(self, name) is not None)

    def items(self):
        return ((name, getattr(self, name)) for name in self)


class Tool:
    """One tool of the module, with buffers that are kept from part to part.

    ::

        with velostrix.Tool() as tool:
            tool.prepare(count=4, shape=(480, 640), parameters=velostrix.Parameters(run="cali"))
            for frames in camera:
                for frame in frames:
                    tool.set_image(frame)
                result = tool.run()

    A tool takes about (52 + 5 count) bytes a pixel until it is closed. It is used by one thread at a
    time; separate tools are independent, and native calls release the interpreter lock.
    """

    def __init__(self) -> None:
        self._handle: Optional[int] = None
        self._mats: Optional[int] = None
        self._key: Optional[tuple] = None
        self._parameters: Optional[Parameters] = None
        self._images_set = 0
        self._timings = Timings()

    def __enter__(self) -> "Tool":
        return self

    def __exit__(self, *exception) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()

    def close(self) -> None:
        """Gives all memory back; harmless to repeat. Views of results end here."""
        handle, self._handle = self._handle, None
        mats, self._mats = self._mats, None
        self._parameters = None
        if mats:
            _native.module.DestroyImageArrayCPU(mats)
        if handle:
            _native.module.ReleaseVelostrixUnCalibrationToolImage_CPU(handle)
            _native.module.DestroyVelostrixUnCalibrationToolPtr_CPU(handle)

    def prepare(self, count: int, shape, parameters: Parameters = Parameters()) -> None:
        """Brings the tool to `count` images of `shape` = (rows, cols) and to the parameters; forgets
        images set so far. Allocates only when count, shape, region or scale change.

        Raises ValueError or TypeError, naming the argument; the tool is then as it was.
        """
        rows, cols = (int(length) for length in shape)
        parameters.check(count, rows, cols)
        # Scaling goes by way of a region, which fixes the working size without new buffers.
        roi = parameters.roi
        if roi is None and parameters.scale < 1.0:
            roi = (0, 0, cols, rows)
        key = (count, rows, cols, roi and tuple(roi), parameters.scale)
        self._timings = Timings(buffers=self._timings.buffers)
        is_new = self._handle is None or key != self._key
        if is_new:
            # Another tool: scaling, once on, is not switched off by later parameters.
            start = time.perf_counter()
            self.close()
            self._handle = _native.module.CreateVelostrixUnCalibrationToolPtr_CPU(None)
            self._mats = _native.mat.VelostrixMatNewArray(len(OUTPUTS))
            self._key = key
            self._timings.buffers = _milliseconds_since(start)

        start = time.perf_counter()
        record = parameters.record(count, rows, cols)
        _native.module.SetVelostrixUnCalibrationToolParam_CPU(self._handle, ctypes.byref(record))
        if roi is not None:
            x, y, width, height = roi
            _native.module.SetVelostrixUnCalibrationToolROI_CPU(
                self._handle, x, y, x + width - 1, y + height - 1
            )
        self._timings.parameters = _milliseconds_since(start)
        if is_new:
            start = time.perf_counter()
            _native.module.InitialVelostrixUnCalibrationToolImage_CPU(self._handle)
            self._timings.buffers += _milliseconds_since(start)
        _native.module.ClearVelostrixUnCalibrationToolImage_CPU(self._handle)
        self._parameters = replace(parameters)
        self._images_set = 0

    def set_image(self, image: np.ndarray) -> None:
        """Copies the next image, uint8 of shape (rows, cols), into the tool. Rows may be apart, as in
        a slice of a larger image; an array whose pixels are apart too is made contiguous first.

        Raises ValueError or TypeError for another type, shape or one image too many, RuntimeError
        before `prepare`, MemoryError when the buffers could not be allocated.
        """
        count, rows, cols = self._geometry()
        if self._images_set == count:
            raise ValueError(f"image: all {count} images are set; run() comes next")
        image = check_image("image", image, (rows, cols))
        if image.strides[1] != 1 or not cols <= image.strides[0] < 2**31:
            image = np.ascontiguousarray(image)
        start = time.perf_counter()
        record = _native.ImageRecord(
            data=image.ctypes.data,
            width=cols,
            height=rows,
            row_stride=image.strides[0],
            type_code=_EIGHT_BIT_ONE_CHANNEL,
        )
        if not _native.module.SetVelostrixUnCalibrationToolImage_CPU_csharp(
            self._handle, ctypes.byref(record)
        ):
            self.close()
            raise MemoryError(
                f"buffers for {count} images of {cols} x {rows} pixels could not be allocated; "
                "use a region or a smaller scale"
            )
        self._images_set += 1
        self._timings.images.append(_milliseconds_since(start))

    def run(self, copy: bool = True) -> Result:
        """Runs on the images that were set and returns the result images.

        copy: False gives arrays over the tool's memory, valid only until the next `run`, `prepare`
            with another geometry, or `close`: reading them later reads freed memory.

        Raises RuntimeError when images are missing.
        """
        count = self._geometry()[0]
        if self._images_set != count:
            raise RuntimeError(f"run: {self._images_set} of {count} images are set")
        parameters = self._parameters
        function = {
            "uncali": _native.module.RunVelostrixUnCalibration_CPU_uncali,
            "cali": _native.module.RunVelostrixUnCalibration_CPU_cali,
            "partrows": _native.module.RunVelostrixUnCalibration_CPU_partrows_uncali,
            "partcols": _native.module.RunVelostrixUnCalibration_CPU_partcols_uncali,
        }[parameters.run]
        band = [parameters.band] if parameters.run.startswith("part") else []
        mats = [
            _native.mat.VelostrixMatAt(self._mats, len(OUTPUTS), k) for k in range(len(OUTPUTS))
        ]
        start = time.perf_counter()
        done = function(self._handle, *mats, *band)
        self._timings.run = _milliseconds_since(start)
        if not done:
            raise RuntimeError("run: refused by the module")
        self._images_set = 0
        result = Result(parameters, self._timings)
        self._timings = Timings(buffers=self._timings.buffers)
        made = set(parameters.outputs) | set(CHANNELS if "normal" in parameters.outputs else ())
        for name, mat in zip(_RUN_ARGUMENTS, mats):
            if name in made:
                view = _view(mat)
                setattr(result, name, view.copy() if copy else view)
        return result

    def _geometry(self):
        if self._parameters is None:
            raise RuntimeError("the tool is not prepared; call prepare() first")
        return self._key[:3]


def check_image(argument: str, image: np.ndarray, shape) -> np.ndarray:
    """Returns the image as an array of the shape, or refuses it by the argument's name."""
    image = np.asarray(image)
    if image.dtype != np.uint8:
        raise TypeError(f"{argument}: holds {image.dtype}; expected uint8")
    if image.shape != tuple(shape):
        raise ValueError(f"{argument}: has shape {image.shape}; expected {tuple(shape)}")
    return image


def _milliseconds_since(start: float) -> float:
    return (time.perf_counter() - start) * 1000.0


def _view(mat: int) -> np.ndarray:
    info = _native.MatInfo()
    _native.mat.VelostrixMatInspect(mat, ctypes.byref(info))
    pixel, channels = _PIXEL_TYPES[info.type]
    memory = (ctypes.c_uint8 * (info.step * (info.rows - 1) + info.cols * info.pixel_bytes))
    sample_bytes = np.dtype(pixel).itemsize
    shape, strides = (info.rows, info.cols), (info.step, info.pixel_bytes)
    if channels > 1:
        shape, strides = shape + (channels,), strides + (sample_bytes,)
    return np.ndarray(shape, pixel, memory.from_address(info.data), 0, strides)
