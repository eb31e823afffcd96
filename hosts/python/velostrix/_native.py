"""The two native libraries: where they are found, their records and functions as ctypes sees them.

Functions of a ``ctypes.CDLL`` release the interpreter lock while they run, so other Python threads
go on during a reconstruction.
"""
import ctypes
import os
import pathlib
import sys
from ctypes import POINTER, Structure, c_bool, c_double, c_int32, c_int64, c_void_p

SEARCH_VARIABLE = "VELOSTRIX_LIBRARY_PATH"


class OutputScaling(Structure):
    _fields_ = [("offset", c_int32), ("gain", c_double)]


class UnCalibrationParam(Structure):
    """The record of SetVelostrixUnCalibrationToolParam_CPU."""

    _fields_ = [
        ("image_count", c_int32),
        ("width", c_int32),
        ("height", c_int32),
        ("row_step", c_int32),
        ("output_enable", c_int32 * 8),
        ("scale", c_double),
        ("difference_mode", c_int32),
        ("blur_radius", c_int32),
        ("iteration_cap", c_int32),
        ("factor_offset", c_int32),
        ("factor_gain", c_double),
        ("curvature", OutputScaling),
        ("magnitude", OutputScaling),
        ("channel", OutputScaling * 3),
        ("reserved", OutputScaling * 2),
        ("equalise_on", c_int32),
    ]


class ImageRecord(Structure):
    """One image in host memory."""

    _fields_ = [
        ("data", c_void_p),
        ("width", c_int32),
        ("height", c_int32),
        ("row_stride", c_int32),
        ("unread", c_int32),
        ("type_code", c_int32),
    ]


class MatInfo(Structure):
    """What VelostrixMatInspect tells of an image."""

    _fields_ = [
        ("data", c_void_p),
        ("step", c_int64),
        ("rows", c_int32),
        ("cols", c_int32),
        ("type", c_int32),
        ("pixel_bytes", c_int32),
        ("owns_pixels", c_int32),
        ("unused", c_int32),
    ]


assert ctypes.sizeof(UnCalibrationParam) == 200
assert ctypes.sizeof(ImageRecord) == 32
assert ctypes.sizeof(MatInfo) == 40

_EIGHT_MATS = [c_void_p] * 8
_MODULE_FUNCTIONS = {
    "CreateVelostrixUnCalibrationToolPtr_CPU": (c_void_p, [c_void_p]),
    "DestroyVelostrixUnCalibrationToolPtr_CPU": (None, [c_void_p]),
    "SetVelostrixUnCalibrationToolParam_CPU": (c_bool, [c_void_p, POINTER(UnCalibrationParam)]),
    "SetVelostrixUnCalibrationToolROI_CPU": (c_bool, [c_void_p] + [c_int32] * 4),
    "ClearVelostrixUnCalibrationToolROI_CPU": (c_int64, [c_void_p] + [c_int32] * 3),
    "InitialVelostrixUnCalibrationToolImage_CPU": (None, [c_void_p]),
    "SetVelostrixUnCalibrationToolImage_CPU": (c_bool, [c_void_p, c_void_p]),
    "SetVelostrixUnCalibrationToolImage_CPU_csharp": (c_bool, [c_void_p, POINTER(ImageRecord)]),
    "ClearVelostrixUnCalibrationToolImage_CPU": (None, [c_void_p]),
    "ReleaseVelostrixUnCalibrationToolImage_CPU": (None, [c_void_p]),
    "DestroyImageArrayCPU": (None, [c_void_p]),
    "RunVelostrixUnCalibration_CPU_uncali": (c_int32, [c_void_p] + _EIGHT_MATS),
    "RunVelostrixUnCalibration_CPU_cali": (c_int32, [c_void_p] + _EIGHT_MATS),
    "RunVelostrixUnCalibration_CPU_partrows_uncali": (c_int32, [c_void_p] + _EIGHT_MATS + [c_int32]),
    "RunVelostrixUnCalibration_CPU_partcols_uncali": (c_int32, [c_void_p] + _EIGHT_MATS + [c_int32]),
}
_MAT_FUNCTIONS = {
    "VelostrixMatNewArray": (c_void_p, [c_int32]),
    "VelostrixMatAt": (c_void_p, [c_void_p, c_int32, c_int32]),
    "VelostrixMatInspect": (c_bool, [c_void_p, POINTER(MatInfo)]),
}


def _load(name: str, functions: dict) -> ctypes.CDLL:
    """Loads a library from VELOSTRIX_LIBRARY_PATH, from beside this package, or by the system."""
    if sys.platform == "win32":
        file = f"{name}.dll"
    else:
        file = f"lib{name}.{'dylib' if sys.platform == 'darwin' else 'so'}"
    folders = [pathlib.Path(f) for f in os.environ.get(SEARCH_VARIABLE, "").split(os.pathsep) if f]
    folders.append(pathlib.Path(__file__).parent)
    paths = [folder / file for folder in folders]
    found = next((str(path) for path in paths if path.is_file()), file)
    try:
        library = ctypes.CDLL(found)
    except OSError as error:
        raise ImportError(
            f"{file} could not be loaded ({error}); build or install Velostrix, or set "
            f"{SEARCH_VARIABLE} to the folder that holds it"
        ) from error
    for function, (result, arguments) in functions.items():
        getattr(library, function).restype = result
        getattr(library, function).argtypes = arguments
    return library


module = _load("VelostrixUncalibration", _MODULE_FUNCTIONS)
mat = _load("velostrix_mat", _MAT_FUNCTIONS)
