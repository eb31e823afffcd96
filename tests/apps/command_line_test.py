"""The command line as a user calls it: what it writes, what it says, and how it ends."""
import hashlib
import json
import os
import pathlib
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import zlib

import numpy as np
from PIL import Image

PROGRAM = pathlib.Path(sys.argv.pop()).resolve()
RECIPE = pathlib.Path(__file__).parents[1] / "hosts/recipe.json"
OUTPUTS = "channel0 channel1 channel2 curvature factor height magnitude normal".split()


class CommandLine(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)
        self.run_well("render --out inputs --images 5 --size 96x72 --quiet")
        self.image = self.read("inputs/image0.png")

    def start(self, arguments, before="exec"):
        return subprocess.Popen(f"{before} {PROGRAM} {arguments}", shell=True, cwd=self.folder,
                                text=True, errors="replace", stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT)

    def call(self, arguments, before="exec"):
        """Exit code and what was said."""
        process = self.start(arguments, before)
        said, _ = process.communicate(timeout=60)
        return process.returncode, said

    def run_well(self, arguments):
        exit_code, said = self.call(arguments)
        self.assertEqual(exit_code, 0, said)
        return said

    def read(self, name):
        return np.asarray(Image.open(self.folder / name))

    def write(self, name, pixels):
        Image.fromarray(pixels).save(self.folder / name)

    def read_json(self, name):
        return json.loads((self.folder / name).read_text())

    def files_in(self, name):
        return sorted(path.name for path in (self.folder / name).iterdir())

    def test_reconstruct_writes_all_images_and_its_record(self):
        said = self.run_well("reconstruct inputs/image*.png --out out --offset channel0=99")
        self.assertEqual(self.files_in("out"), [f"{name}.png" for name in OUTPUTS] + ["run.json"])
        self.assertIn("image3.png: 0 % saturated, 0 % black", said)
        self.assertIn("gains and offsets: curvature ", said)
        self.assertNotIn("warning", said)
        record = self.read_json("out/run.json")
        self.assertEqual(len(record["singular_values"]), 5)
        self.assertEqual(record["recipe"]["offsets"]["channel0"], 99)
        self.assertGreater(record["recipe"]["gains"]["channel0"], 1.0)
        self.assertEqual(len(record["chosen_gains"]), 5)
        self.assertRegex(record["date"], r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        self.assertEqual(record["command"][1:3], ["reconstruct", "inputs/image0.png"])
        self.assertGreater(record["threads"], 0)
        self.assertTrue(record["host"])
        image = (self.folder / "inputs/image4.png").read_bytes()
        self.assertEqual(record["inputs"][4]["sha256"], hashlib.sha256(image).hexdigest())
        self.assertGreater(record["times_ms"]["run"], 0.0)

    def test_every_option_is_used_and_recorded(self):
        self.assertEqual("", self.run_well(
            "reconstruct inputs/image*.png --quiet --out out --save-recipe kept.json --run partcols"
            " --band 20 --outputs factor,curvature,magnitude,channel1,channel2,normal,height"
            " --roi 8,6,80,60 --scale 0.75 --equalise --difference forward --blur-radius 2"
            " --iteration-cap 30 --bits 12 --white 3500 --lamp 1=90.5 --gain factor=0.9 --gain curvature=300.5"
            " --gain magnitude=200.25 --gain channel1=-90 --gain channel2=4000 --offset channel0=100"
            " --offset curvature=120 --offset magnitude=3 --offset channel2=-5"))
        self.assertEqual(self.read("out/height.png").shape, (60, 80))
        record = self.read_json("out/run.json")
        self.assertEqual(record["recipe"], self.read_json("kept.json"))
        del record["recipe"]["gains"]["channel0"]
        expected = {**json.loads(RECIPE.read_text()), "flat": []}
        self.assertEqual(record["recipe"], expected)
        self.assertEqual(record["chosen_gains"], ["channel0"])
        self.assertEqual(record["sizes"]["working"], {"width": 60, "height": 45})

    def test_a_recipe_repeats_a_run_and_gives_way_to_options(self):
        for k in range(5):
            self.write(f"lamp{4 * k}.png", self.read(f"inputs/image{k}.png").astype(np.uint16) * 16)
        files = " ".join(f"lamp{4 * k}.png" for k in range(5))
        self.run_well(f"reconstruct {files} --out one --roi 3,4,60,50 --run partrows --quiet"
                      " --offset channel1=100 --save-recipe kept/mine.json")
        self.run_well(f"reconstruct {files} --out two --quiet --recipe one/run.json")
        self.run_well(f"reconstruct {files} --out three --quiet --recipe kept/mine.json"
                      " --outputs height,normal --gain channel0=1")
        for name in OUTPUTS:
            one = (self.folder / f"one/{name}.png").read_bytes()
            self.assertEqual((self.folder / f"two/{name}.png").read_bytes(), one)
        self.assertEqual(self.files_in("three"), ["height.png", "normal.png", "run.json"])
        normal = self.read("three/normal.png")
        np.testing.assert_array_equal(normal[..., 1], self.read("two/channel1.png"))
        self.assertLess(normal[..., 2].std(), self.read("two/channel0.png").std())
        self.run_well("reconstruct . --out by_folder --quiet --recipe one/run.json")
        record = self.read_json("by_folder/run.json")
        self.assertEqual([pathlib.Path(i["file"]).name for i in record["inputs"]], files.split())

    def test_formats_are_converted_and_channels_split(self):
        self.write("colour.bmp", np.dstack([self.image] * 3))
        self.write("same.png", self.image)
        said = self.run_well("reconstruct same.png colour.bmp inputs/image1.png --out same")
        self.assertIn("colour.bmp: 0 % saturated, 0 % black; colour converted to grey", said)
        self.assertIn("warning: colour.bmp: equal to same.png", said)
        self.assertIn("warning: the images are too alike to determine relief in two", said)

        lamps = [self.read(f"inputs/image{k}.png") // (k * k + 1) for k in range(3)]
        self.write("lamps.png", np.dstack(lamps))
        said = self.run_well("reconstruct lamps.png --split-channels --run cali --out one")
        self.assertIn("do not show whether the lamps are those of the ring", said)
        names = ["\udcff.png", "b\x1b.png", "c.png"]
        for bits in (10, 12, 14, 16):  # found, and the same for the dark image
            for name, pixels in zip(names, lamps):
                self.write(name, np.rint(pixels / 255 * (2**bits - 1)).astype(np.uint16))
            said = self.run_well(
                f"reconstruct {' '.join(names)} --run cali --outputs normal --out {bits}")
            self.assertIn("b\\x1b.png: 0 % saturated, 0 % black; 16-bit samples ", said)
            record = self.read_json(f"{bits}/run.json")
            self.assertEqual(record["recipe"]["bits"], bits)
            one, other = (self.read(f"{out}/normal.png") for out in ("one", bits))
            np.testing.assert_array_equal(one, other)
        self.assertEqual(record["inputs"][0]["file"], "\ufffd.png")

    def write_png(self, name, pixels, further=b""):
        """With all filters in turn, the compressed rows in pieces, and a chunk of further data."""
        def chunk(kind, data):
            return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
        height, width, samples = pixels.shape
        rows = pixels.astype(pixels.dtype.newbyteorder(">")).view(np.uint8).reshape(height, -1)
        pixel = rows.shape[1] // width
        padded = np.pad(rows.astype(int), ((1, 0), (pixel, 0)))
        left, above, corner = padded[1:, :-pixel], padded[:-1, pixel:], padded[:-1, :-pixel]
        near = np.abs([above - corner, left - corner, left + above - 2 * corner]).argmin(axis=0)
        filters = [0, left, above, (left + above) // 2, np.choose(near, [left, above, corner])]
        filtered = [(rows - predicted).astype(np.uint8) for predicted in filters]
        stream = zlib.compress(
            b"".join(bytes([i % 5]) + filtered[i % 5][i].tobytes() for i in range(height)))
        pieces = [stream[k:k + 999] for k in range(0, len(stream), 999)]
        header = struct.pack(">IIBBBBB", width, height, 8 * pixels.itemsize, samples - 1, 0, 0, 0)
        (self.folder / name).write_bytes(
            b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(further[:4], further[4:]) +
            b"".join(chunk(b"IDAT", piece) for piece in pieces) + chunk(b"IEND", b""))

    def test_png_files_are_read_as_by_opencv(self):
        random = np.random.default_rng(5)
        for kind, samples in ((np.uint8, 1), (np.uint8, 3), (np.uint16, 1), (np.uint16, 3)):
            for k in range(3):
                lamp = self.read(f"inputs/image{k}.png")[:, :, None] / 256 * random.uniform(0.9, 1, samples)
                pixels = (lamp * np.iinfo(kind).max).astype(kind)
                self.write_png(f"own{k}.png", pixels, b"tEXtComment\0none")
                self.write_png(f"opencv{k}.png", pixels, b"eXIfII*\0\x08\0\0\0\0\0")  # reads EXIF
            for by in ("own", "opencv"):
                self.run_well(f"reconstruct {by}?.png --quiet --outputs normal --out {by}")
            np.testing.assert_array_equal(self.read("own/normal.png"), self.read("opencv/normal.png"))

    def test_files_come_as_stations_have_them(self):
        lamps = [self.read(f"inputs/image{k}.png") for k in range(5)]
        reconstruct = "reconstruct {} --quiet --outputs normal --run cali --out {} {}".format

        turned = "--gain channel0=99 --gain channel1=99 --gain channel2=99"
        for k, lamp in enumerate(lamps):
            self.write(f"turned{k}.png", np.rot90(lamp, -1))
            for name, kind in (("byte.png", np.uint8), ("word.png", np.uint16), ("word.tiff", np.uint16)):
                pixels = lamp.astype(kind) * (257 if kind == np.uint16 else 1)
                exif = Image.Exif()
                exif[0x0112] = 6
                given = {"tiffinfo": {0x0112: 6}} if name == "word.tiff" else {"exif": exif}
                Image.fromarray(pixels).save(self.folder / f"{k}{name}", **given)
        for name in ("turned?.png", "?byte.png", "?word.png", "?word.tiff"):
            self.run_well(reconstruct(name, f"by_{name[1:]}", turned))
            np.testing.assert_array_equal(self.read(f"by_{name[1:]}/normal.png"),
                                          self.read("by_urned?.png/normal.png"))
        code, said = self.call(reconstruct("0byte.png turned1.png 2byte.png", "out", ""))
        self.assertEqual(code, 1)
        self.assertIn("turned1.png: has EXIF orientation 1, but 0byte.png has 6", said)

        filters = np.tile([[[0.9, 1.0], [1.0, 0.4]]], (1, 36, 48))[0]  # rggb
        for k, lamp in enumerate(lamps):
            self.write(f"raw{k}.png", np.rint(lamp * filters).astype(np.uint8))
        for bayer, is_warned in (("", True), ("--bayer rggb", False)):
            self.run_well(reconstruct("raw?.png", "raw", bayer))
            warnings = self.read_json("raw/run.json")["warnings"]
            self.assertEqual(any("5 of 5 files: look like raw" in w for w in warnings), is_warned)
        self.assertEqual(self.read_json("raw/run.json")["inputs"][0]["conversion"],
                         "Bayer frame (rggb) converted")

        fall_off = np.linspace(0.4, 1.0, 96)
        for k, lamp in enumerate(lamps):  # 14 bits that are hardly used, in falling light
            ramp = fall_off[::-1] if k % 2 else fall_off
            self.write(f"dim{k}.png", np.rint(lamp * 12.0 * ramp).astype(np.uint16))
            self.write(f"flat{k}.png", np.rint(200 * ramp * np.ones((72, 1))).astype(np.uint8))
        scale = "--white 3060 --gain channel0=99 --gain channel1=99 --gain channel2=99"
        self.run_well(reconstruct("dim?.png", "even", scale + " --flat flat?.png"))
        self.run_well(reconstruct("dim?.png", "uneven", scale))
        self.run_well(reconstruct("dim?.png", "again", "--recipe even/run.json"))
        self.run_well(reconstruct("inputs/*.png", "true", scale))
        true, even, uneven, again = (self.read(f"{out}/normal.png").astype(float)
                                     for out in ("true", "even", "uneven", "again"))
        self.assertLess(np.abs(even - true).mean(), 0.1 * np.abs(uneven - true).mean())
        np.testing.assert_array_equal(again, even)
        self.assertEqual(self.read_json("even/run.json")["inputs"][0]["conversion"],
                         "16-bit samples divided by 12, divided by its flat field")

        (self.folder / "many").mkdir()
        for k in range(12):  # twins beside each other, and a dead lamp
            self.write(f"many/lamp{k}.png", lamps[k // 2] if k < 10 else lamps[0] // 9)
        self.run_well(reconstruct("many", "chosen", "--choose 5"))
        used = [pathlib.Path(i["file"]).name for i in self.read_json("chosen/run.json")["inputs"]]
        self.assertEqual([int(name[4:-4]) // 2 for name in used], list(range(5)))

    def test_a_view_of_the_height_and_what_its_levels_mean(self):
        self.run_well("reconstruct inputs --quiet --out out --outputs height --height-view")
        height = self.read_json("out/run.json")["height"]
        self.assertEqual((height["view"]["removed"], height["view"]["border"]), ("quadratic", 9))
        self.assertIn("not_comparable", height)
        self.assertEqual((self.read("out/height_view.png").shape, self.files_in("out")),
                         ((72, 96), ["height.png", "height_view.png", "run.json"]))
        self.run_well("reconstruct inputs --quiet --out out --outputs height")
        self.assertEqual(self.files_in("out"), ["height.png", "run.json"])

    def test_compression_changes_sizes_only(self):
        sizes = []
        for level in (0, 1, 9):
            self.run_well(f"reconstruct inputs/image*.png --quiet --out {level} --compression {level}")
            sizes.append(sum(p.stat().st_size for p in (self.folder / str(level)).glob("*.png")))
            for name in OUTPUTS:
                np.testing.assert_array_equal(self.read(f"{level}/{name}.png"), self.read(f"0/{name}.png"))
        self.assertGreater(sizes[0], 1.2 * max(sizes[1:]))
        times = self.read_json("0/run.json")["times_ms"]
        self.assertTrue(all(times[name] > 0 for name in ("diagnose", "encode_files", "write_files")))

    def test_a_folder_holds_one_run_and_what_is_not_ours(self):
        reconstruct = "reconstruct inputs/image*.png --quiet --out {} --outputs {}".format
        self.run_well(reconstruct("out", "all"))
        record = self.read_json("out/run.json")
        record["outputs"] += ["mine.png", "../inputs/image0.png", 7]  # by another hand
        (self.folder / "out/run.json").write_text(json.dumps(record))
        (self.folder / "out/mine.png").touch()
        self.run_well(reconstruct("out", "height"))
        self.assertEqual(self.files_in("out"), ["height.png", "mine.png", "run.json"])
        self.run_well("render --out inputs --images 3 --size 96x72 --quiet")
        self.assertEqual(self.files_in("inputs"), [f"image{k}.png" for k in range(3)] + ["truth"])

        runs = [self.start(reconstruct("two", outputs))
                for outputs in ("factor,normal", "normal,magnitude", "channel0") * 3]
        self.assertEqual([run.communicate()[0] for run in runs], [""] * 9)
        listed = sorted(self.read_json("two/run.json")["outputs"])
        self.assertEqual(self.files_in("two"), listed + ["run.json"])

    def test_an_interrupted_run_leaves_nothing_or_all(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.start(f"render --quiet --size 1500x1000 --images 3 --out {number}") as run:
                while run.poll() is None and not (self.folder / str(number)).exists():
                    time.sleep(0.001)
                run.send_signal(number)
            files = [path for path in (self.folder / str(number)).rglob("*") if path.is_file()]
            self.assertIn((run.returncode, len(files)), [(-number, 0), (-number, 7), (0, 7)])

    def test_short_memory_is_said_in_one_line(self):
        def call(arguments, megabytes):
            return self.call(arguments, f"ulimit -v {megabytes}000; exec")

        needed = next((m for m in range(20, 1000, 10) if call("info", m)[0] == 0), None)
        if needed is None:
            self.skipTest("this sanitizer needs all addresses")
        for arguments in ("render --quiet --out large --size 1000x600 --images 3",
                          "reconstruct --quiet --out o --outputs normal large/image*.png",
                          "sheet --out sheet.tiff --tile 1000 large"):
            ends = {call(arguments, needed + more) for more in range(5, 300, 15)}
            self.assertEqual({exit_code for exit_code, _ in ends}, {0, 1}, ends)
            for exit_code, said in ends:
                self.assertRegex(said, r"\Avelostrix: [^\n]*\n\Z" if exit_code else r"\A\Z")

    def test_a_mask_leaves_pixels_out(self):
        mask = np.full_like(self.image, 255)
        mask[:, :20] = 0
        self.write("mask.png", mask)
        self.run_well("reconstruct inputs/image*.png --quiet --out out --mask mask.png")
        self.assertTrue((self.read("out/curvature.png")[:, :20] == 128).all())
        found = self.read_json("out/run.json")["mask"]
        self.assertEqual((found["file"], found["kept_share"]), ("mask.png", 76 / 96))
        asked = "--choose 4 --bayer rggb --mask mask.png --height-view=plane"
        self.run_well(f"reconstruct inputs --quiet --out one {asked} --save-recipe kept.json")
        for recipe in ("one/run.json", "kept.json"):
            self.run_well(f"reconstruct inputs --quiet --out two --recipe {recipe}")
            self.assertEqual(self.files_in("two"), self.files_in("one"))
            for name in [*OUTPUTS, "height_view"]:
                self.assertEqual((self.folder / f"two/{name}.png").read_bytes(),
                                 (self.folder / f"one/{name}.png").read_bytes(), name)
        (self.folder / "mask.png").unlink()
        code, said = self.call("reconstruct inputs --quiet --out two --recipe kept.json")
        self.assertEqual((code, "kept.json: its mask mask.png is not there; give --mask" in said), (1, True), said)
        self.run_well("reconstruct inputs --quiet --out two --recipe kept.json --outputs factor"
                      " --mask none --bayer none")
        self.run_well("reconstruct inputs/image*.png --quiet --out auto --mask auto")
        self.assertEqual(self.read_json("auto/run.json")["mask"]["kept_share"], 1.0)

    def test_bad_exposure_is_warned_of(self):
        half = self.image.copy()
        half[:36] = 0
        self.write("bright.png", np.minimum(self.image * 4.0, 255).astype(np.uint8))
        self.write("dark.png", (self.image * 0.1).astype(np.uint8))
        self.write("half.png", half)
        self.write("dead.png", (self.image > 200).astype(np.uint8))
        said = self.run_well("reconstruct bright.png dark.png half.png dead.png --out out")
        for warning in ("warning: bright.png: ", "of the pixels are saturated; expose shorter",
                        "warning: dark.png: too dark (mean level",
                        "warning: half.png: 50.0 % of the pixels are black",
                        "warning: dead.png: dark all over"):
            self.assertIn(warning, said)
        for warning in self.read_json("out/run.json")["warnings"]:
            self.assertIn(f"warning: {warning}\n", said)

    def test_the_scene_comes_with_its_truth_and_fits_on_a_sheet(self):
        self.run_well("render --out a --lamps random --images 4 --size 40x30 --seed 7")
        self.assertEqual(self.files_in("a"), [f"image{k}.png" for k in range(4)] + ["truth"])
        self.assertEqual(self.files_in("a/truth"),
                         ["albedo.tiff", "height.tiff", "normals.tiff", "scene.json"])
        self.assertEqual(len(self.read_json("a/truth/scene.json")["lamps"]), 4)
        self.assertEqual(self.read("a/truth/height.tiff").dtype, np.float32)
        for images, is_ring in (("inputs", True), ("a", False)):
            said = self.run_well(
                f"reconstruct {images}/image* --run cali --out cali --outputs normal")
            self.assertEqual("warning: the lamps are not" not in said, is_ring, said)
        self.run_well("sheet inputs inputs/truth --out sheet.png --tile 50")
        self.assertEqual(self.read("sheet.png").shape[1], 8 + 5 * (50 + 8))

    def test_explored_tiles_are_what_reconstruct_makes(self):
        self.run_well("reconstruct inputs --quiet --out out --outputs curvature --difference forward")
        gain = self.read_json("out/run.json")["recipe"]["gains"]["curvature"]
        said = self.run_well("explore inputs --vary difference=central,forward --vary gain=x1,x2"
                             " --crop 10,20,80,40")
        self.assertIn("wrote explore.png", said)
        sheet = self.read("explore.png")
        width = (sheet.shape[1] - 3 * 8) // 2
        tile = sheet[-8 - width // 2:-8, -8 - width:-8]  # the last, its pixels repeated
        self.run_well("reconstruct inputs --quiet --out out --outputs curvature --difference forward"
                      f" --gain curvature={2 * gain:.3g}")
        shown = self.read("out/curvature.png")[20:60, 10:90]
        np.testing.assert_array_equal(tile[..., 0], shown.repeat(width // 80, 0).repeat(width // 80, 1))

        said = self.run_well("explore inputs --show height-view --vary blur=0,1 --out sheet.png")
        self.assertIn("warning: --blur-radius makes no difference in height-view here", said)

    def test_it_tells_about_itself(self):
        self.assertIn("processor", self.run_well("info"))
        self.assertIn("velostrix ", self.run_well("--version"))
        for command in ("", "reconstruct", "render", "sheet", "info", "explore"):
            self.assertIn("Exit codes: 0 done", self.run_well(command + " --help"))

    def test_bash_completes_commands_options_and_choices(self):
        script = pathlib.Path(__file__).parents[2] / "cmake/velostrix.bash"
        for words, expected in (("exp", "explore"), ("reconstruct a --blur", "--blur-radius"),
                                ("reconstruct --run part", "partrows partcols"),
                                ("render --out inp", "inputs")):
            call = (f"source {script}; COMP_WORDS=(velostrix {words}); n=${{#COMP_WORDS[@]}};"
                    " COMP_CWORD=$((n - 1)); _velostrix velostrix ${COMP_WORDS[@]:(-1)}"
                    " ${COMP_WORDS[n - 2]}; echo ${COMPREPLY[@]}")
            said = subprocess.check_output(["bash", "-c", call], text=True, cwd=self.folder, env={
                **os.environ, "PATH": f"{PROGRAM.parent}:{os.environ['PATH']}"})
            self.assertEqual(said.strip(), expected, words)

    def test_refusals_say_in_one_line_what_to_do_and_write_nothing(self):
        (self.folder / "empty.png").touch()
        (self.folder / "hostile.json").write_text(
            '{"recipe": {"recipe_version": 1}, "options": {"split_channels": 7}}')
        (self.folder / "old.json").write_text('{"recipe_version": 1, "blur": 2}')
        whole = (self.folder / "inputs/image0.png").read_bytes()
        (self.folder / "cut.png").write_bytes(whole[: len(whole) // 2])
        self.write("small.png", self.image[2:])
        self.write("colour.png", np.dstack([self.image] * 3))
        self.write("float.tiff", self.image.astype(np.float32))
        self.write("words.tiff", self.image.astype(np.uint16) * 257)
        os.mkfifo(self.folder / "fifo")
        (self.folder / "folder/height.png").mkdir(parents=True)
        (self.folder / "given").mkdir()
        (self.folder / "given/height.png").symlink_to("../inputs/image2.png")
        (self.folder / "given/image0.png").touch()
        at_first = sorted(self.folder.rglob("*"))
        good = "reconstruct inputs/image*.png --quiet --out out "
        pair = "reconstruct inputs/image0.png inputs/image1.png --quiet "
        two = pair + "--out out "
        for arguments, exit_code, *said in (
            ("", 2, "expected one of reconstruct explore batch merge report compare render sheet info"),
            ("recnostruct a", 2, "recnostruct: no such command; the nearest is reconstruct"),
            ("reconstruct a b c", 2, "--out is required"),
            (two, 2, "IMAGE: 2 files given", "expected 3 to 8"),
            (pair + "inputs/image2.png " * 7 + "--out out", 2, "9 files given", "--choose 8"),
            (good + "--flat small.png", 1, "small.png: 96 x 70", "96 x 72"),
            (good + "--flat " + "inputs/image0.png " * 3, 1, "5 images given, but flat has"),
            (good + "--white 0", 2, "--white", "1 to 65535"),
            (good + "--height-view --outputs factor", 2, "--height-view", "not made"),
            (good + "--height-view=cone", 2, "--height-view", "plane,quadratic"),
            (good + "--choose 2", 2, "--choose", "3 to 8"),
            (good + "--bayer rgb", 2, "--bayer", "rggb"),
            (pair + "colour.png --bayer rggb --out out", 1, "colour.png: a colour image", "raw"),
            (good + "--compression 10", 2, "--compression", "0 to 9"),
            ("explore inputs --vary blurr=1", 2, "--vary blurr=1", "NAME one of gain, blur"),
            ("explore inputs --vary band=5", 2, "--band", "10 to"),
            ("explore inputs --vary gain=1,2,3,4,5 --vary blur=" + "1," * 13 + "0", 2, "5 x 14 tiles"),
            ("explore inputs --vary gain=2 --show height", 2, "--vary gain: height has none"),
            ("explore inputs --quiet --crop 90,0,9,9", 2, "--crop 90,0,9,9", "96 x 72"),
            ("explore inputs --quiet --tile 90", 2, "--tile 90", "as wide as the labels"),
            ("explore inputs --out inputs/sheet.png", 2, "in the folder of the images"),
            (two + "--split-channels", 2, "expected 1 colour file"),
            (good + "--blurr 3", 2, "--blurr: no such option", "--blur-radius"),
            (good + "--run best", 2, "--run", "best", "uncali", "partcols"),
            (good + "--outputs factor,depth", 2, "--outputs factor,depth", "curvature"),
            (good + "--roi 9,9,5", 2, "--roi 9,9,5", "X,Y,WIDTH,HEIGHT"),
            (good + "--roi 1,0,96,72", 1, "region of 96 x 72 pixels at (1, 0)", "96 x 72"),
            (good + "--recipe none.json", 1, "none.json: no such file", "run.json"),
            (good + "--recipe old.json", 1, "old.json: recipe: blur is no field", "blur_radius"),
            (good + "--recipe hostile.json", 1, "hostile.json: options: "),
            (good + "--lamp 0:left", 2, "--lamp 0:left", "K=FROM", "left, right, up, down"),
            (good + "--mask small.png", 1, "small.png: 96 x 70", "96 x 72", "mask"),
            (good + "--mask none.png", 1, "none.png: no such file"),
            (good + "--lamp 8=up", 2, "--lamp 8=up"),
            (good + "--lamp 5=up", 1, "lamp 5; expected", "5 images"),
            (good + "--scale nan", 2, "--scale", "nan"),
            (good + "--blur-radius -1", 2, "--blur-radius", "0 to 32767"),
            (good + "--gain height=2", 2, "--gain height=2", "NAME=NUMBER", "factor, curvature"),
            (good + "--offset channel0=1.5", 2, "--offset channel0=1.5", "NAME=NUMBER"),
            (good + "--outputs height --gain factor=2", 2, "--gain factor=2", "not made"),
            (good + "--gain factor=2 --gain factor=3", 2, "--gain factor=3", "twice"),
            (pair + "inputs/image2.png --out ''", 2, "--out"),
            ("reconstruct given --out out", 2, "2 files given (in the folder given)"),
            (two + "inputs", 1, "inputs: is a folder", "inputs/*"),
            ("reconstruct 'x*.png' --out out", 2, "1 file given", "no file matches"),
            (two + "fifo", 1, "fifo: is not a regular file"),
            (two + "'no\nsuch.png'", 1, "no\\x0asuch.png: no such file"),
            (two + "words.tiff --bits 12", 1, "words.tiff: has the value", "than 12 bits"),
            (pair + "inputs/image2.png --out given", 1, "inputs/image2.png: is an input"),
            (pair + "inputs/image3.png --out folder", 1, "folder/height.png: is there already"),
            ("render --out given", 1, "given/image0.png: is there already"),
            ("sheet inputs --out ./inputs/image1.png", 1, "inputs/image1.png: is an input"),
            ("info > /dev/full", 1, "standard output"),
            ("render --help > /dev/full", 1, "standard output"),
            (two + "none.png", 1, "none.png: no such file", "expected"),
            (two + "cut.png", 1, "cut.png: cannot be decoded", "PNG"),
            (two + "empty.png", 1, "empty.png: is empty"),
            (two + "float.tiff", 1, "float.tiff", "8 or 16 bits"),
            (two + "small.png", 1, "small.png: 96 x 70", "96 x 72"),
            ("reconstruct small.png --split-channels --out out", 1, "expected a colour image"),
            ("reconstruct inputs/image*.png --quiet --out small.png/x", 1, "small.png: is a file"),
            ("render --out out --size 640", 2, "--size 640", "WIDTHxHEIGHT"),
            ("render --out out --size 8x8", 2, "--size 8x8", "from 16"),
            ("render --out out --seed -1", 2, "--seed"),
            ("sheet out --out sheet.png", 1, "out: no such folder"),
            ("sheet inputs --out sheet.txt", 2, "--out sheet.txt", ".png"),
        ):
            with self.subTest(arguments):
                actual_code, line = self.call(arguments)
                self.assertEqual(actual_code, exit_code, line)
                self.assertRegex(line, r"\Avelostrix: [^\n]*\n\Z")
                for text in said:
                    self.assertIn(text, line)
        self.assertEqual(sorted(self.folder.rglob("*")), at_first)


if __name__ == "__main__":
    unittest.main()
