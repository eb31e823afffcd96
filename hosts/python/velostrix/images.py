"""Arrays as images for velostrix_host; wrong ones are refused with the code that converts them."""
import ctypes
import functools
import os
import pathlib
from typing import Any, Iterable, List, Tuple, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _native
from .parameters import sequence


def _refuse_type(argument: str, array: NDArray[Any]) -> None:
    text = f"{argument}: holds {array.dtype}; expected uint8, or uint16 with bits"
    if array.dtype.kind not in "fiub":
        raise TypeError(text)
    if array.dtype.kind == "b":
        line = "image.astype(np.uint8) * 255"
    elif array.dtype.kind in "iu" or np.nanmax(array, initial=0) > 1:
        line = "np.rint(image).clip(0, 255).astype(np.uint8)"
    else:
        line = "np.rint(image * 255).clip(0, 255).astype(np.uint8)"
    raise TypeError(f"{text}; convert it: image = {line}")


def _refuse_shape(argument: str, array: NDArray[Any]) -> None:
    text = f"{argument}: has shape {array.shape}; expected (rows, cols)"
    if array.ndim == 3 and array.shape[2] in (3, 4):
        line = f"image[..., :3].mean(axis=2).astype(np.{array.dtype})"
        raise ValueError(f"{text}, not colour; convert it: image = {line}")
    raise ValueError(text)


class Images:
    """Images for velostrix_host: their `records`, and the arrays that these point into."""

    def __init__(self, images: Iterable[ArrayLike]) -> None:
        listed = sequence("images", images, "a sequence of 3 to 8 arrays")
        self._arrays: List[NDArray[Any]] = []
        self.records = (_native.Image * len(listed))()
        for k, image in enumerate(listed):
            array, self.records[k] = read_image(f"images[{k}]", image)
            self._arrays.append(array)


def read_image(argument: str, image: ArrayLike) -> Tuple[NDArray[Any], _native.Image]:
    """The image as an array, copied only if necessary, and its record."""
    if image is None:
        raise TypeError(f"{argument}: None given; expected an array of uint8, or uint16 with bits")
    array = np.asarray(image)
    if array.dtype.kind != "u" or array.itemsize > 2:
        _refuse_type(argument, array)
    if array.ndim != 2:
        _refuse_shape(argument, array)
    if max(array.shape) >= 2**31:
        raise ValueError(f"{argument}: has shape {array.shape}; expected sides below 2**31")
    rows, cols = array.shape
    array = array.astype(array.dtype.newbyteorder("="), copy=False)
    if array.strides[1] != array.itemsize or array.strides[0] < cols * array.itemsize:
        array = np.ascontiguousarray(array)
    record = _native.Image(array.ctypes.data, array.strides[0], cols, rows, array.itemsize)
    return array, record


_EXTENSIONS = {".png", ".bmp", ".tif", ".tiff", ".jpg", ".jpeg"}


def image_files(folder: Union[str, "os.PathLike[str]"]) -> List[pathlib.Path]:
    """The image files of a folder in natural order, as everywhere in Velostrix: ``lamp2.png`` before
    ``lamp10.png``."""
    def compare(a: pathlib.Path, b: pathlib.Path) -> int:
        order: int = _native.call("CompareNames", os.fsencode(a), os.fsencode(b))
        return order

    files = (path for path in pathlib.Path(folder).iterdir()
             if path.suffix.lower() in _EXTENSIONS and path.is_file())
    return sorted(files, key=functools.cmp_to_key(compare))


class View:
    """A result in the memory of a reconstructor, which stays alive with it; for np.asarray."""

    def __init__(self, owner: _native.Reconstructor, output: int) -> None:
        plane = _native.Plane()
        owner.call("Result", output, ctypes.byref(plane))
        pixel = plane.channels * plane.sample_bytes
        channels = (plane.channels,) if plane.channels > 1 else ()
        self._owner = owner
        self.__array_interface__ = {
            "version": 3,
            "shape": (plane.height, plane.width, *channels),
            "strides": (plane.row_stride, pixel, plane.sample_bytes)[: 2 + len(channels)],
            "typestr": np.dtype(f"u{plane.sample_bytes}").str,
            "data": (plane.data, True),  # read-only
        }
