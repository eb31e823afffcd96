"""Takes the version from where the project states it; pyproject.toml holds the rest."""
import pathlib
import re

from setuptools import setup

top = pathlib.Path(__file__).resolve().parents[2] / "CMakeLists.txt"
setup(version=re.search(r"VERSION (\d+\.\d+\.\d+)", top.read_text()).group(1))
