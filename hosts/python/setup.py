"""Version and native libraries of the package; pyproject.toml has everything else.

The version is that of the project or, in a source distribution, of PKG-INFO. The libraries come from
VELOSTRIX_LIBRARY_PATH; without it, the package has none and loads the installed ones.
"""
import os
import pathlib
import re
import shutil
import sysconfig

from setuptools import setup
from setuptools.command.build_py import build_py

here = pathlib.Path(__file__).resolve().parent
information = here / "PKG-INFO"
stated = information if information.is_file() else here.parents[1] / "CMakeLists.txt"
version = re.search(r"(?:VERSION |^Version: )(\d+\.\d+\.\d+)", stated.read_text(), re.M).group(1)
folder = os.environ.get("VELOSTRIX_LIBRARY_PATH")


def library(pattern: str) -> pathlib.Path:
    """The file that the pattern matches; of lib.so, lib.so.0.1 and lib.so.0.1.0 the shortest name."""
    found = sorted(pathlib.Path(folder).glob(pattern), key=lambda path: len(path.name))
    if not found:
        place = pathlib.Path(folder).resolve()
        raise SystemExit(f"VELOSTRIX_LIBRARY_PATH: no {pattern} in {place}; expected the whole path "
                         "of the folder of a build")
    return found[0]


class BuildPackage(build_py):
    def run(self):
        shutil.rmtree(self.build_lib, ignore_errors=True)  # what an earlier build left
        super().run()
        package = pathlib.Path(self.build_lib) / "velostrix"
        (package / "version.txt").write_text(version)
        if folder:
            # By the names that ctypes and velostrix_host load.
            for pattern in ("libvelostrix_host.so", "libVelostrixUncalibration.so.*"):
                shutil.copy(library(pattern), package)


platform = re.sub(r"\W", "_", sysconfig.get_platform())
setup(
    version=version,
    cmdclass={"build_py": BuildPackage},
    options={"bdist_wheel": {"plat_name": platform}} if folder else {},
)
