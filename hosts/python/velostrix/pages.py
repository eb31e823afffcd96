"""Results for display: pictures and a relightable surface in notebooks, and the report."""
import base64
import dataclasses
import datetime
import hashlib
import io
import json
import math
import os
import pathlib
import subprocess
import tempfile
from typing import TYPE_CHECKING, Any, Dict, Iterable, List, Optional, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _native
from .images import read_image
from .parameters import CHANNELS, OUTPUTS, Parameters

if TYPE_CHECKING:
    from PIL import Image

    from .result import Result

# A notebook keeps what it shows: below 0.9 MB, also of noise, which PNG cannot compress.
_RELIGHTING_PIXELS = 120_000
_PICTURE_PIXELS = 30_000
_FRAME_SIZE = 640  # of the relighting, in CSS pixels at most
_CONTROLS_HEIGHT = 170

_PARTS = pathlib.Path(__file__).with_name("relighting")


def _picture(image: NDArray[Any], bits: int = 8) -> "Image.Image":
    """Channels 0, 1, 2 are blue, green, red; bits: at most."""
    from PIL import Image

    if image.dtype == np.uint16 and bits == 8:
        image = (image >> 8).astype(np.uint8)
    return Image.fromarray(np.ascontiguousarray(image[..., ::-1] if image.ndim == 3 else image))


def _reduced(image: NDArray[Any], most_pixels: int) -> "Image.Image":
    picture = _picture(image)
    return picture.reduce(math.ceil(math.sqrt(max(1.0, picture.width * picture.height / most_pixels))))


def _base64_png(picture: "Image.Image") -> str:
    png = io.BytesIO()
    picture.save(png, "png")
    return base64.b64encode(png.getvalue()).decode()


def _recipe(parameters: Parameters) -> Dict[str, Any]:
    """With the gains and offsets in force, also those of the library."""
    recipe: Dict[str, Any] = json.loads(parameters.to_json())
    settings = parameters.settings()
    for name in CHANNELS:
        recipe["gains"].setdefault(name, settings.gain[OUTPUTS.index(name)])
        recipe["offsets"].setdefault(name, settings.offset[OUTPUTS.index(name)])
    return recipe


def _relighting(result: "Result") -> str:
    """The page of the relighting."""
    pictures = {name: _reduced(result[name], _RELIGHTING_PIXELS)
                for name in ("channel0", "channel1", "factor") if name in result}
    width, height = pictures["channel0"].size
    data = {
        "record": {"recipe": _recipe(result.parameters)}, "inputs": [], "normal": False,
        "page_width": width, "page_height": height,
        "results": {name: {"png": _base64_png(picture)} for name, picture in pictures.items()},
    }
    page = (_PARTS / "notebook.html").read_text(encoding="utf-8")
    for mark, files in {"@STYLE@": ["style.css"], "@RELIGHT@": ["relight.html"],
                        "@SCRIPT@": ["data.js", "relight.js"]}.items():
        page = page.replace(mark, "".join((_PARTS / file).read_text(encoding="utf-8") for file in files))
    return page.replace("@DATA@", json.dumps(data))


def for_notebook(result: "Result") -> str:
    shown = []
    if "channel0" in result and "channel1" in result:
        page = _relighting(result).replace("&", "&amp;").replace('"', "&quot;")
        rows, cols = result["channel0"].shape
        width = _FRAME_SIZE * min(1.0, cols / rows)
        height = width * rows / cols + _CONTROLS_HEIGHT
        shown.append(
            f'<iframe srcdoc="{page}" sandbox="allow-scripts" title="Surface under a lamp that you move" '
            f'style="display: block; width: 100%; max-width: {max(320, width):.0f}px; '
            f'height: {height:.0f}px; border: 0"></iframe>')
    for name, image in result.items():
        picture = _base64_png(_reduced(image, _PICTURE_PIXELS))
        shown.append(
            '<figure style="display: inline-block; margin: 4px">'
            f'<img src="data:image/png;base64,{picture}" alt="{name}"><figcaption>{name}</figcaption>'
            '</figure>')
    return "<div>" + "\n".join(shown) + "</div>"


def _write_inputs(
    result: "Result", images: List[NDArray[Any]], folder: pathlib.Path
) -> Dict[str, Any]:
    """Their files, and what a record says of them."""
    from .tool import Tool

    names = [f"image{k}.png" for k in range(1, len(images) + 1)]
    with Tool() as tool:
        found = tool.diagnose(images, result.parameters, names)
    inputs = []
    for name, image, exposure in zip(names, images, found.exposures):
        _picture(image, 16).save(folder / name)
        inputs.append({
            "file": name, "sha256": hashlib.sha256((folder / name).read_bytes()).hexdigest(),
            "conversion": "", "saturated_share": exposure.saturated_share,
            "black_share": exposure.black_share, "mean_level": exposure.mean_level})
    return {
        "inputs": inputs, "warnings": found.warnings, "singular_values": found.singular_values,
        "unexplained_share": None if found.unexplained_by_ring is None else
        {"by_ring": found.unexplained_by_ring, "by_any_lamps": found.unexplained_by_any},
        "shifts_pixels": found.shifts, "noise_share": found.noise_share}


def write_report(
    result: "Result", path: Union[str, "os.PathLike[str]"], images: Iterable[ArrayLike], program: str
) -> None:
    page = pathlib.Path(path).absolute()
    if page.is_dir():
        raise IsADirectoryError(f"{page}: is a folder; expected the name of a page, as in part.html")
    arrays = [read_image(f"images[{k}]", image)[0] for k, image in enumerate(images)]
    with tempfile.TemporaryDirectory() as scratch:
        folder = pathlib.Path(scratch, page.stem)  # whose name is the title
        folder.mkdir()
        for name, image in result.items():
            _picture(image, 16).save(folder / f"{name}.png")
        found = result.orientation
        record = {
            "version": _native.call("LibraryVersion").decode(),
            "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
            **(_write_inputs(result, arrays, pathlib.Path(scratch)) if arrays else {"inputs": []}),
            "orientation": None if found.curl_as_is is None else
            {**dataclasses.asdict(found), "turn_degrees": found.turn},
            "recipe": _recipe(result.parameters),
            "times_ms": {
                "set_parameters": result.timings.parameters,
                "allocate_buffers": result.timings.buffers,
                "set_images": result.timings.images, "run": result.timings.run},
            "outputs": [f"{name}.png" for name in result],
        }
        (folder / "run.json").write_text(json.dumps(record), encoding="utf-8")
        try:
            done = subprocess.run(
                [program, "report", "--quiet", "--out", os.fspath(page), "--", folder.name],
                cwd=scratch, capture_output=True, text=True, errors="replace")
        except FileNotFoundError:
            raise FileNotFoundError(
                f"{program}: no such program; the page is written by the command line velostrix: build or "
                "install Velostrix, and put the program on the PATH or give its path as program") from None
    if done.returncode != 0:
        raise RuntimeError(done.stderr.strip() or f"{program} ended with {done.returncode}")
