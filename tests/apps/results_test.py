"""Results after a run: compared with others and with the truth, and exported for other tools."""
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

import meshio
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

    def test_other_libraries_read_the_exports(self):
        self.call("reconstruct scene --out out --recipe a/run.json --quiet --decimate 1"
                  " --export surface.ply,height.tiff,normals.png")
        height = self.read("out/height.tiff")
        self.assertEqual(height.dtype, np.float32)
        levels = self.read("a/height.png")
        np.testing.assert_allclose(height, levels * (height.max() / 65535.0), atol=1e-5)
        truth = self.read("scene/truth/height.tiff")
        inside = truth > np.quantile(truth, 0.9)  # the bump
        scale = np.polyfit(truth[inside], height[inside], 1)[0]
        self.assertTrue(0.85 < scale < 1.05, scale)  # n_x is a bit less than the slope n_x / n_z

        normals = self.read("out/normals.png") / 127.5 - 1.0
        np.testing.assert_allclose(np.linalg.norm(normals, axis=2), 1.0, atol=0.02)
        uphill = [np.diff(truth, axis=1)[:-1], -np.diff(truth, axis=0)[:, :-1]]  # to the right, up
        for channel, slopes in enumerate(uphill):
            found = (-normals[..., channel] / normals[..., 2])[:-1, :-1]
            self.assertGreater(np.corrcoef(slopes.ravel(), found.ravel())[0, 1], 0.97)

        mesh = meshio.read(self.folder / "out/surface.ply", "ply")
        self.assertEqual(mesh.points.shape, (160 * 120, 3))
        np.testing.assert_array_equal(mesh.points[:, 2], height.ravel())
        np.testing.assert_array_equal(mesh.points[161], [1, -1, height[1, 1]])
        np.testing.assert_array_equal(mesh.point_data["red"].astype(np.uint8),
                                      self.read("out/factor.png").ravel())
        self.assertEqual(mesh.cells_dict["triangle"].shape, (2 * 159 * 119, 3))
        a, b, c = (mesh.points[mesh.cells_dict["triangle"][:, k], :2] for k in range(3))
        np.testing.assert_array_equal(np.cross(b - a, c - a), 1.0)  # all face the camera
        facing = np.stack([mesh.point_data[name] for name in ("nx", "ny", "nz")], 1)
        np.testing.assert_allclose(facing.reshape(normals.shape), normals, atol=0.005)

        self.call("reconstruct scene --out out --recipe a/run.json --quiet --decimate 7"
                  " --mesh-colours grey --export surface.ply,normals.png --normal-convention directx")
        self.assertFalse((self.folder / "out/height.tiff").exists())
        flipped = self.read("out/normals.png") / 127.5 - 1.0
        np.testing.assert_allclose(flipped, normals * (1, -1, 1), atol=0.009)
        mesh = meshio.read(self.folder / "out/surface.ply", "ply")
        self.assertEqual(mesh.points.shape, (22 * 17, 3))
        np.testing.assert_allclose(
            mesh.points[23], [10, -10, height[7:14, 7:14].mean()], rtol=1e-5)
        self.assertEqual(set(mesh.point_data["blue"].astype(np.uint8)), {160})
        exports = json.loads((self.folder / "out/run.json").read_text())["exports"]
        self.assertEqual(exports["normals.png"], {"convention": "directx"})
        self.assertEqual(exports["surface.ply"]["decimate"], 7)

    def test_exports_that_cannot_be_made_are_refused(self):
        for arguments, code, expected in [
                ("--export surface.obj", 2, "expected some of surface.ply,height.tiff,normals.png"),
                ("--export surface.ply --outputs normal", 2, "factor is not made"),
                ("--export height.tiff --outputs height", 2, "channel0 is not made"),
                ("--decimate 2", 2, "--decimate requires --export"),
                ("--export surface.ply --decimate 100", 1, "leaves no surface"),
                ("--export height.tiff --offset channel0=9999 --offset channel1=9999", 1, "scale")]:
            with self.subTest(arguments):
                said = self.call(f"reconstruct scene --out none --run cali --quiet {arguments}", code)
                self.assertIn(expected, said)
                self.assertFalse((self.folder / "none").exists())


if __name__ == "__main__":
    unittest.main(verbosity=2)
