"""The command line as a user calls it: what it writes, what it says, and how it ends."""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

import numpy as np
from PIL import Image

PROGRAM = pathlib.Path(sys.argv.pop()).resolve()
OUTPUTS = "channel0 channel1 channel2 curvature factor height magnitude normal".split()


class CommandLine(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)
        self.run_well("render --out inputs --images 5 --size 96x72 --quiet")
        self.image = self.read("inputs/image0.png")

    def call(self, arguments):
        """Exit code and what was said."""
        done = subprocess.run(f"{PROGRAM} {arguments}", shell=True, cwd=self.folder, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return done.returncode, done.stdout

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
        self.assertEqual(len(record["inputs"]), 5)
        self.assertEqual(record["inputs"][0]["saturated_share"], 0.0)
        self.assertEqual(len(record["singular_values"]), 5)
        self.assertEqual(record["sizes"]["working"], record["sizes"]["input"])
        self.assertEqual(record["parameters"]["scaling"]["curvature"]["offset"], 128)
        self.assertEqual(record["parameters"]["scaling"]["channel0"]["offset"], 99)
        self.assertGreater(record["parameters"]["scaling"]["channel0"]["gain"], 1.0)
        self.assertGreater(record["times_ms"]["run"], 0.0)
        self.assertEqual(len(record["outputs"]), 8)

    def test_given_parameters_are_used_and_recorded(self):
        self.assertEqual("", self.run_well(
            "reconstruct inputs/image*.png --out out --run partcols --band 30 --quiet"
            " --outputs height,curvature --roi 10,8,69,57 --scale 0.5 --equalise"
            " --difference forward --blur 2 --iterations 9"
            " --gain curvature=33.5 --offset curvature=-7 --gain factor=2"))
        self.assertEqual(self.files_in("out"), ["curvature.png", "height.png", "run.json"])
        self.assertEqual(self.read("out/height.png").shape, (50, 60))
        record = self.read_json("out/run.json")
        expected = {"run": "partcols", "band": 30, "roi": [10, 8, 69, 57], "scale": 0.5,
                    "equalise": True, "difference": "forward", "blur": 2, "iterations": 9}
        used = record["parameters"]
        self.assertEqual({name: used[name] for name in expected}, expected)
        self.assertEqual(used["scaling"]["factor"]["gain"], 2.0)
        self.assertEqual(used["scaling"]["curvature"],
                         {"gain": 33.5, "offset": -7, "gain_given": True})
        self.assertEqual(record["sizes"]["working"], {"width": 30, "height": 25})

    def test_formats_are_converted_and_channels_split(self):
        self.write("colour.bmp", np.dstack([self.image] * 3))
        self.write("words.tiff", self.image.astype(np.uint16) * 257)
        said = self.run_well("reconstruct inputs/image0.png colour.bmp words.tiff --out mixed")
        self.assertIn("colour.bmp: 0 % saturated, 0 % black; colour converted to grey", said)
        self.assertIn("words.tiff: 0 % saturated, 0 % black; 16-bit samples divided by 257", said)
        self.assertIn("warning: the images are too alike to show relief", said)
        self.assertLess(self.read_json("mixed/run.json")["singular_values"][1], 1e-6)

        lamps = [self.read(f"inputs/image{k}.png") for k in range(3)]
        self.write("lamps.png", np.dstack(lamps))
        self.run_well("reconstruct lamps.png --split-channels --run cali --out one")
        self.run_well("reconstruct inputs/image[012].png --run cali --out three")
        np.testing.assert_array_equal(self.read("one/normal.png"), self.read("three/normal.png"))

    def test_bad_exposure_is_warned_of(self):
        half = self.image.copy()
        half[:36] = 0
        self.write("bright.png", np.minimum(self.image * 4.0, 255).astype(np.uint8))
        self.write("dark.png", (self.image * 0.1).astype(np.uint8))
        self.write("half.png", half)
        said = self.run_well("reconstruct bright.png dark.png half.png --out out")
        for warning in ("warning: bright.png: ", "of the pixels are saturated; expose shorter",
                        "warning: dark.png: too dark (mean level",
                        "warning: half.png: 50.0 % of the pixels are black"):
            self.assertIn(warning, said)
        self.assertEqual(len(self.read_json("out/run.json")["warnings"]), 3)

    def test_the_scene_comes_with_its_truth_and_fits_on_a_sheet(self):
        for out in "ab":
            self.run_well(f"render --out {out} --lamps random --images 3 --size 40x30 --seed 7")
        self.assertEqual(self.files_in("a"), ["image0.png", "image1.png", "image2.png", "truth"])
        self.assertEqual(self.files_in("a/truth"),
                         ["albedo.tiff", "height.tiff", "normals.tiff", "scene.json"])
        self.assertEqual(len(self.read_json("a/truth/scene.json")["lamps"]), 3)
        self.assertEqual(self.read("a/truth/height.tiff").dtype, np.float32)
        np.testing.assert_array_equal(self.read("a/image2.png"), self.read("b/image2.png"))
        self.run_well("sheet inputs inputs/truth --out sheet.png --tile 50")
        rows, cols, _ = self.read("sheet.png").shape
        self.assertEqual(cols, 8 + 5 * (50 + 8))
        self.assertGreater(rows, 2 * 38)

    def test_it_tells_about_itself(self):
        self.assertIn("processor", self.run_well("info"))
        self.assertIn("velostrix ", self.run_well("--version"))
        for command in ("", "reconstruct", "render", "sheet", "info"):
            self.assertIn("Exit codes: 0 done", self.run_well(command + " --help"))

    def test_refusals_say_in_one_line_what_to_do_and_write_nothing(self):
        (self.folder / "text.png").write_text("no picture")
        (self.folder / "empty.png").touch()
        whole = (self.folder / "inputs/image0.png").read_bytes()
        (self.folder / "cut.png").write_bytes(whole[: len(whole) // 2])
        self.write("small.png", self.image[2:])
        self.write("float.tiff", self.image.astype(np.float32))
        at_first = self.files_in(".")
        good = "reconstruct inputs/image*.png --quiet --out out "
        two = "reconstruct inputs/image0.png inputs/image1.png --quiet --out out "
        for arguments, exit_code, *said in (
            ("", 2, "expected one of reconstruct render sheet info"),
            ("frobnicate", 2, "frobnicate: no such command", "expected one of reconstruct"),
            ("reconstruct a b c", 2, "--out is required"),
            (two, 2, "IMAGE: 2 files given", "expected 3 to 8"),
            (two + "1 2 3 4 5 6 7", 2, "IMAGE: 9 files given"),
            (two + "--split-channels", 2, "expected 1 colour file"),
            (good + "--frobnicate", 2, "--frobnicate"),
            (good + "--run best", 2, "--run", "best", "uncali", "partcols"),
            (good + "--band 9", 2, "--band", "9"),
            (good + "--outputs factor,depth", 2, "--outputs factor,depth", "curvature"),
            (good + "--roi 1,2,3", 2, "--roi 1,2,3", "X1,Y1,X2,Y2"),
            (good + "--roi 9,9,5,20", 2, "--roi 9,9,5,20", "first and last pixel"),
            (good + "--roi 0,0,99999999999,5", 2, "--roi", "X1,Y1,X2,Y2"),
            (good + "--roi 0,0,96,71", 1, "--roi 0,0,96,71", "from 0,0 to 95,71"),
            (good + "--roi 4,4,5,9", 1, "2 x 6 pixels", "at least 3 x 2"),
            (good + "--scale 0", 2, "--scale", "0.001"),
            (good + "--blur -1", 2, "--blur", "0 to 32767"),
            (good + "--iterations many", 2, "--iterations", "many"),
            (good + "--difference both", 2, "--difference", "central", "forward"),
            (good + "--gain height=2", 2, "--gain height=2", "NAME=NUMBER", "factor, curvature"),
            (good + "--gain curvature", 2, "--gain curvature", "NAME=NUMBER"),
            (good + "--offset channel0=1.5", 2, "--offset channel0=1.5", "NAME=NUMBER"),
            (two + "none.png", 1, "none.png: no such file", "expected"),
            (two + "inputs", 1, "inputs: is a folder", "expected"),
            (two + "text.png", 1, "text.png: cannot be decoded", "PNG"),
            (two + "cut.png", 1, "cut.png: cannot be decoded", "PNG"),
            (two + "empty.png", 1, "empty.png: is empty"),
            (two + "float.tiff", 1, "float.tiff", "8 or 16 bits"),
            (two + "small.png", 1, "small.png: 96 x 70", "96 x 72"),
            ("reconstruct small.png --split-channels --out out", 1, "expected a colour image"),
            ("reconstruct inputs/image*.png --out small.png", 1, "small.png: is a file", "folder"),
            ("reconstruct inputs/image*.png --quiet --out small.png/x", 1, "small.png/x"),
            ("render --out out --images 2", 2, "--images", "3 to 8"),
            ("render --out out --size 640", 2, "--size 640", "WIDTHxHEIGHT"),
            ("render --out out --size 8x8", 2, "--size 8x8", "from 16"),
            ("render --out out --lamps sun", 2, "--lamps", "ring", "random"),
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
        self.assertEqual(self.files_in("."), at_first)


if __name__ == "__main__":
    unittest.main()
