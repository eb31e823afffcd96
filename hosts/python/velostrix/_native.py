"""The host library: where it is found, its records and functions as ctypes sees them.

Functions of a ``ctypes.CDLL`` release the interpreter lock while they run, so other Python threads
go on during a reconstruction.
"""
import ctypes
import os
import pathlib
import sys
from ctypes import POINTER, Structure, c_char_p, c_double, c_int32, c_int64, c_uint32, c_void_p
from typing import Any, Callable, NoReturn, Optional

SEARCH_VARIABLE = "VELOSTRIX_LIBRARY_PATH"
OUTPUT_COUNT = 8
MOST_IMAGES = 8
LONGEST_RECIPE = 4096  # bytes
BUSY = 4
_ERRORS = {1: ValueError, 2: MemoryError}  # by status; RuntimeError for all others


class Message(Structure):
    _fields_ = [("text", ctypes.c_char * 1024)]


class Region(Structure):
    _fields_ = [("x", c_int32), ("y", c_int32), ("width", c_int32), ("height", c_int32)]


class Settings(Structure):
    _fields_ = [
        ("struct_size", c_uint32),
        ("run", c_int32),
        ("band", c_int32),
        ("outputs", c_uint32),
        ("has_region", c_int32),
        ("region", Region),
        ("equalise", c_int32),
        ("scale", c_double),
        ("difference", c_int32),
        ("blur_radius", c_int32),
        ("iteration_cap", c_int32),
        ("bits", c_int32),
        ("gain", c_double * OUTPUT_COUNT),
        ("offset", c_int32 * OUTPUT_COUNT),
        ("kept_gains", c_uint32),
        ("kept_offsets", c_uint32),
    ]


class Image(Structure):
    _fields_ = [
        ("data", c_void_p),
        ("row_stride", c_int64),
        ("width", c_int32),
        ("height", c_int32),
        ("sample_bytes", c_int32),
        ("reserved", c_int32),
    ]


class Plane(Structure):
    _fields_ = [
        ("data", c_void_p),
        ("row_stride", c_int64),
        ("width", c_int32),
        ("height", c_int32),
        ("channels", c_int32),
        ("sample_bytes", c_int32),
    ]


class Times(Structure):
    _fields_ = [
        ("parameters", c_double),
        ("buffers", c_double),
        ("images", c_double * MOST_IMAGES),
        ("run", c_double),
    ]


class Exposure(Structure):
    _fields_ = [
        ("saturated_share", c_double),
        ("black_share", c_double),
        ("mean_level", c_double),
        ("is_dead", c_int32),
        ("equal_to", c_int32),
    ]


class Diagnostics(Structure):
    _fields_ = [
        ("struct_size", c_uint32),
        ("image_count", c_int32),
        ("exposures", Exposure * MOST_IMAGES),
        ("singular_values", c_double * MOST_IMAGES),
        ("unexplained_by_ring", c_double),
        ("unexplained_by_any", c_double),
        ("warning_count", c_int32),
        ("reserved", c_int32),
    ]


for _record, _size in {Settings: 168, Image: 32, Plane: 32, Times: 88, Diagnostics: 352}.items():
    assert ctypes.sizeof(_record) == _size, _record

_PREFIX = "Velostrix"
_RECONSTRUCTOR = c_void_p
_FUNCTIONS = {
    "StatusText": (c_char_p, [c_int32]),
    "LibraryVersion": (c_char_p, []),
    "CheckVersion": (c_int32, [c_int32, c_int32, POINTER(Message)]),
    "SetThreads": (c_int32, [c_int32]),
    "Threads": (c_int32, []),
    "SettingsDefaults": (c_int32, [POINTER(Settings)]),
    "SettingsToJson": (
        c_int32, [POINTER(Settings), c_char_p, c_int64, POINTER(c_int64), POINTER(Message)]),
    "SettingsFromJson": (c_int32, [c_char_p, c_int64, POINTER(Settings), POINTER(Message)]),
    "ReconstructorCreate": (c_int32, [POINTER(_RECONSTRUCTOR)]),
    "ReconstructorDestroy": (c_int32, [_RECONSTRUCTOR]),
    "ReconstructorMessage": (c_int32, [_RECONSTRUCTOR, POINTER(Message)]),
    "ReconstructorPrepare": (
        c_int32, [_RECONSTRUCTOR, c_int32, c_int32, c_int32, POINTER(Settings)]),
    "ReconstructorSetImage": (c_int32, [_RECONSTRUCTOR, POINTER(Image)]),
    "ReconstructorClearImages": (c_int32, [_RECONSTRUCTOR]),
    "ReconstructorRun": (c_int32, [_RECONSTRUCTOR]),
    "ReconstructorReconstruct": (
        c_int32, [_RECONSTRUCTOR, POINTER(Image), c_int32, POINTER(Settings)]),
    "ReconstructorResult": (c_int32, [_RECONSTRUCTOR, c_int32, POINTER(Plane)]),
    "ReconstructorTimes": (c_int32, [_RECONSTRUCTOR, POINTER(Times)]),
    "ReconstructorChooseGains": (
        c_int32, [_RECONSTRUCTOR, POINTER(Image), c_int32, POINTER(Settings)]),
    "ReconstructorDiagnose": (
        c_int32, [_RECONSTRUCTOR, POINTER(Image), c_int32, POINTER(Settings), POINTER(c_char_p),
                  POINTER(Diagnostics)]),
    "ReconstructorWarning": (c_int32, [_RECONSTRUCTOR, c_int32, POINTER(Message)]),
}


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
    for name, (result, arguments) in _FUNCTIONS.items():
        function = getattr(library, _PREFIX + name)
        function.restype = result
        function.argtypes = arguments
    return library


_library = _load()


def call(name: str, *arguments: Any) -> Any:
    """What the function returns that is Velostrix and the name."""
    return getattr(_library, _PREFIX + name)(*arguments)


def text_of(message: Message) -> str:
    text: bytes = message.text
    return os.fsdecode(text)


def refuse(status: int, text: str = "") -> NoReturn:
    """Raises the exception of a status."""
    raise _ERRORS.get(status, RuntimeError)(text or call("StatusText", status).decode())


def call_with_message(name: str, *arguments: Any) -> None:
    """Calls a function whose last argument is its message, and raises what it refuses."""
    message = Message()
    status = call(name, *arguments, ctypes.byref(message))
    if status:
        refuse(status, text_of(message))


class Reconstructor(c_void_p):
    """A reconstructor, destroyed when the last reference to it goes."""

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
