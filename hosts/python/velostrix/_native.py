"""The library velostrix_host: finds and loads it; its records and functions for ctypes.

Functions of a ``ctypes.CDLL`` release the interpreter lock, so other Python threads continue during
a reconstruction.
"""
import ctypes
import os
import pathlib
import sys
from ctypes import Structure, c_double, c_int32, c_int64, c_uint32, c_void_p
from typing import Any, Callable, List, NoReturn, Tuple

SEARCH_VARIABLE = "VELOSTRIX_LIBRARY_PATH"
OUTPUT_COUNT = 8
MOST_IMAGES = 8
FLAT_TERMS = 15
LONGEST_RECIPE = 16384  # bytes
BUSY = 4
_ERRORS = {1: ValueError, 2: MemoryError}  # by status; RuntimeError for all others


def _fields(*groups: Tuple[Any, str]) -> List[Tuple[str, Any]]:
    return [(name, kind) for kind, names in groups for name in names.split()]


class Message(Structure):
    _fields_ = _fields((ctypes.c_char * 1024, "text"))


class Region(Structure):
    _fields_ = _fields((c_int32, "x y width height"))


class Settings(Structure):
    _fields_ = _fields(
        (c_uint32, "struct_size"), (c_int32, "run band"), (c_uint32, "outputs"),
        (c_int32, "has_region"), (Region, "region"), (c_int32, "equalise"), (c_double, "scale"),
        (c_int32, "difference blur_radius iteration_cap bits"), (c_double * OUTPUT_COUNT, "gain"),
        (c_int32 * OUTPUT_COUNT, "offset"), (c_uint32, "kept_gains kept_offsets"),
        (c_int32, "orientation lamp"), (c_double, "lamp_degrees"),
        (c_int32, "white flat_count"), (c_double * FLAT_TERMS * MOST_IMAGES, "flat"))


class Image(Structure):
    _fields_ = _fields(
        (c_void_p, "data"), (c_int64, "row_stride"), (c_int32, "width height sample_bytes reserved"))


class HeightView(Structure):
    _fields_ = _fields((c_int32, "removed border"), (c_double, "black white"))


class Plane(Structure):
    _fields_ = _fields(
        (c_void_p, "data"), (c_int64, "row_stride"), (c_int32, "width height channels sample_bytes"))


class Times(Structure):
    _fields_ = _fields(
        (c_double, "parameters buffers"), (c_double * MOST_IMAGES, "images"), (c_double, "run"))


class Orientation(Structure):
    _fields_ = _fields(
        (c_uint32, "struct_size"),
        (c_int32, "is_clear is_mirrored is_turned is_inverted is_sign_open has_mirrored_curvature"),
        (c_int32, "reserved"), (c_double, "curl_as_is curl_mirrored turn"))


class Exposure(Structure):
    _fields_ = _fields(
        (c_double, "saturated_share black_share mean_level"), (c_int32, "is_dead equal_to"))


class Diagnostics(Structure):
    _fields_ = _fields(
        (c_uint32, "struct_size"), (c_int32, "image_count"), (Exposure * MOST_IMAGES, "exposures"),
        (c_double * MOST_IMAGES, "singular_values"),
        (c_double, "unexplained_by_ring unexplained_by_any"), (c_int32, "warning_count last_piece"),
        (c_double * MOST_IMAGES, "shifts"), (c_double, "noise_share"))


_SIZES = {Settings: 1152, Image: 32, Plane: 32, Orientation: 56, Times: 88, Diagnostics: 424}
for _record, _size in _SIZES.items():
    assert ctypes.sizeof(_record) == _size, _record


def _load() -> ctypes.CDLL:
    """Loads the library from VELOSTRIX_LIBRARY_PATH, from beside this package, or by the system."""
    if sys.platform == "win32":
        file = "velostrix_host.dll"
    else:
        file = f"libvelostrix_host.{'dylib' if sys.platform == 'darwin' else 'so'}"
    folders = [pathlib.Path(f) for f in os.environ.get(SEARCH_VARIABLE, "").split(os.pathsep) if f]
    folders.append(pathlib.Path(__file__).parent)
    found = next((str(folder / file) for folder in folders if (folder / file).is_file()), file)
    try:
        library = ctypes.CDLL(found)
    except OSError as error:
        raise ImportError(
            f"{file} could not be loaded ({error}); build or install Velostrix, or set "
            f"{SEARCH_VARIABLE} to the folder that holds it, and install OpenCV 4"
        ) from error
    for function in library.VelostrixStatusText, library.VelostrixLibraryVersion:
        function.restype = ctypes.c_char_p
    return library


_library = _load()


def call(name: str, *arguments: Any) -> Any:
    """Calls the function of this name, without its Velostrix. Numbers are 32-bit integers, all other
    arguments ctypes objects."""
    return getattr(_library, "Velostrix" + name)(*arguments)


def text_of(message: Message) -> str:
    text: bytes = message.text
    return os.fsdecode(text)


def refuse(status: int, text: str = "") -> NoReturn:
    """Raises the exception of a status."""
    raise _ERRORS.get(status, RuntimeError)(text or call("StatusText", status).decode())


def call_with_message(name: str, *arguments: Any) -> None:
    """Calls a function whose last argument is its message; raises an exception when it refuses."""
    message = Message()
    status = call(name, *arguments, ctypes.byref(message))
    if status:
        refuse(status, text_of(message))


class Reconstructor(c_void_p):
    """A reconstructor, destroyed with the last reference to it."""

    def __init__(self) -> None:
        super().__init__()
        status = call("ReconstructorCreate", ctypes.byref(self))
        if status:
            refuse(status)

    def call(self, name: str, *arguments: Any) -> None:
        status = call("Reconstructor" + name, self, *arguments)
        if status:
            message = Message()
            if status != BUSY:
                call("ReconstructorMessage", self, ctypes.byref(message))
            refuse(status, text_of(message))

    # The default keeps the function while the interpreter shuts down.
    def __del__(
        self, destroy: Callable[[c_void_p], int] = _library.VelostrixReconstructorDestroy
    ) -> None:
        destroy(self)


_version = pathlib.Path(__file__).with_name("version.txt")  # written when a package is made
if _version.is_file():
    try:
        call_with_message("CheckVersion", *map(int, _version.read_text().split(".")[:2]))
    except RuntimeError as mismatch:
        raise ImportError(f"velostrix in {_version.parent}: {mismatch}") from None
