"""Results after a run: compared with others and with the truth."""
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

import numpy as np
from PIL import Image

PROGRAM = pathlib.Path(sys.argv.pop()).resolve()


class Results(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.folder = pathlib.Path(scratch.name)
        cls.call("render --out scene --images 6 --size 160x120 --quiet")
        cls.call("reconstruct scene --out a --quiet --run cali --iteration-cap -1")

    @classmethod
    def call(cls, arguments, expected=0):
        done = subprocess.run([PROGRAM, *arguments.split()], cwd=cls.folder, text=True,
                              capture_output=True, timeout=60)
        assert done.returncode == expected, done
        assert done.stderr.count("\n") <= 1, done.stderr
        return done.stdout + done.stderr

    def read(self, name):
        return np.asarray(Image.open(self.folder / name))

    def test_differences_are_found_where_they_are_and_end_with_1(self):
        shutil.copytree(self.folder / "a", self.folder / "b")
        pixels = np.array(self.read("a/height.png"))
        pixels[70, 30] += 257 * 12 if pixels[70, 30] < 30000 else -257 * 12
        pixels[20, 90] += 257 * 3 if pixels[20, 90] < 30000 else -257 * 3
        Image.fromarray(pixels).save(self.folder / "b/height.png")
        for arguments, code, beyond in [("--tolerance 11.9", 1, 1), ("--tolerance 12", 0, 0),
                                        ("--share 0.0002", 0, 2), ("", 1, 2)]:
            with self.subTest(arguments):
                said = self.call(f"compare a b --json found.json --picture all.png {arguments}", code)
                self.assertEqual("beyond the tolerance: height" in said, code == 1)
                found = json.loads((self.folder / "found.json").read_text())
                self.assertEqual(found["is_within"], code == 0)
                height = found["images"]["height"]
                self.assertEqual(height["largest"], 12)
                self.assertAlmostEqual(height["beyond_share"], beyond / pixels.size)
                self.assertEqual([(place["x"], place["y"]) for place in height["worst"]],
                                 [(30, 70), (90, 20)])
                self.assertEqual({image["largest"] for name, image in found["images"].items()
                                  if name != "height"}, {0})
        self.assertEqual(self.read("all.png").shape[2], 3)

    def test_the_truth_explains_a_calibrated_run(self):
        for b in ["scene", "scene/truth"]:
            said = self.call(f"compare a {b} --tolerance 25 --json truth.json")
            self.assertIn("explained variance 0.99", said)
            images = json.loads((self.folder / "truth.json").read_text())["images"]
            self.assertEqual(list(images), ["factor", "channel0", "channel1", "height"])
            for name, image in images.items():
                self.assertGreater(image["explained_variance"], 0.98, name)
                self.assertFalse(image["is_inverted"], name)
        shutil.copytree(self.folder / "a", self.folder / "inverted")
        Image.fromarray(255 - self.read("a/channel1.png")).save(
            self.folder / "inverted/channel1.png")
        self.assertEqual(self.call("compare inverted scene --tolerance 25").count(", inverted"), 1)

    def test_what_cannot_be_compared_ends_with_2_and_results_with_other_outputs_with_1(self):
        self.call("reconstruct scene --out factor --outputs factor --run cali --quiet")
        self.call("reconstruct scene --out part --roi 0,0,60,40 --run cali --quiet")
        self.call("render --out large --images 3 --size 161x120 --quiet")
        self.assertIn("in one folder only: curvature", self.call("compare a factor --quiet", 1))
        for arguments, expected in [("a part", "not as large"), ("a large", "not as large"),
                                    ("a nowhere", "no such file"), ("scene a", "no such file"),
                                    ("a a --tolerance nan", "expected a number"),
                                    ("a a --picture all.pdf", "expected a name"),
                                    ("a a --json a/run.json", "is an input")]:
            with self.subTest(arguments):
                self.assertIn(expected, self.call(f"compare {arguments} --quiet", 2))


if __name__ == "__main__":
    unittest.main(verbosity=2)
