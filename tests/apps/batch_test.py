"""Many parts: one process, shards, interruptions, bad manifests, watched folders."""
import csv
import hashlib
import json
import os
import pathlib
import random
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import numpy as np
from PIL import Image

try:
    import distributed
    import velostrix
except ImportError:
    distributed = None

PROGRAM = pathlib.Path(sys.argv[-1]).resolve()
TIMES = {"date", "load_ms", "run_ms", "encode_ms"}  # columns that differ from run to run


class Batch(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)
        self.run_well("render --out scene --images 4 --size 48x40 --quiet")
        self.run_well("reconstruct scene --out first --quiet")
        self.scene = [np.asarray(Image.open(self.folder / f"scene/image{k}.png"))
                      for k in range(4)]

    def start(self, arguments, **options):
        return subprocess.Popen(f"exec {PROGRAM} {arguments}", shell=True, cwd=self.folder,
                                text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                **options)

    def call(self, arguments, **options):
        process = self.start(arguments, **options)
        said, _ = process.communicate(timeout=300)
        return process.returncode, said

    def run_well(self, arguments, **options):
        code, said = self.call(arguments, **options)
        self.assertEqual(code, 0, said)
        return said

    def make_part(self, folder, seed=0, images=4):
        """Images of the scene with noise of their own."""
        noise = np.random.default_rng(seed)
        (self.folder / folder).mkdir(parents=True)
        for k in range(images):
            pixels = self.scene[k] + noise.integers(0, 4, self.scene[k].shape)
            Image.fromarray(np.minimum(pixels, 255).astype(np.uint8)).save(
                self.folder / folder / f"image{k}.png", compress_level=1)

    def make_parts(self, count):
        with open(self.folder / "parts.csv", "w", newline="") as file:
            table = csv.writer(file)
            table.writerow(["part", "image1", "image2", "image3", "image4"])
            for k in range(count):
                self.make_part(f"parts/{k}", k)
                table.writerow([f"part {k}"] + [f"parts/{k}/image{i}.png" for i in range(4)])

    def table(self, out):
        with open(self.folder / out / "results.csv", newline="") as file:
            return [{name: cell for name, cell in row.items() if name not in TIMES}
                    for row in csv.DictReader(file)]

    def images(self, out):
        """Hashes of all files but the records and the table."""
        folder = self.folder / out
        return {str(path.relative_to(folder)): hashlib.sha256(path.read_bytes()).hexdigest()
                for path in folder.rglob("*")
                if path.is_file() and path.name not in ("run.json", "results.csv")
                and not path.name.startswith("results-")}

    def assert_same_batch(self, out, expected):
        self.assertEqual(self.table(out), self.table(expected))
        self.assertEqual(self.images(out), self.images(expected))

    def wait_for(self, condition):
        deadline = time.monotonic() + 120
        while not condition():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.02)

    def records(self, out):
        """When each was written."""
        return {path: path.stat().st_mtime_ns
                for path in (self.folder / out).glob("*/run.json")}

    def run_on_dask(self, out, parts):
        """By two workers, of which one is killed half-way."""
        def kill():
            self.wait_for(lambda: len(self.records(out)) >= parts // 2)
            os.kill(victim, signal.SIGKILL)
            made.update(self.records(out))

        made = {}
        with distributed.LocalCluster(n_workers=2, threads_per_worker=1, memory_limit=None,
                                      dashboard_address=None) as cluster, \
                distributed.Client(cluster) as client:
            victim = min(client.run(os.getpid).values())
            killer = threading.Thread(target=kill)
            killer.start()
            table = velostrix.batch(self.folder / "parts.csv", self.folder / "first/run.json",
                                    self.folder / out, client, program=str(PROGRAM))
            killer.join()
            with self.assertRaisesRegex(ValueError, "no such file"):
                velostrix.batch(self.folder / "no.csv", self.folder / "first/run.json",
                                self.folder / "no", client, program=str(PROGRAM))
        self.assertEqual([row["status"] for row in table], ["done"] * parts)
        self.assertGreaterEqual(len(made), parts // 2)
        self.assertLessEqual(made.items(), self.records(out).items(), "made twice")

    def test_one_process_shards_and_a_cluster_make_the_same(self):
        self.make_parts(500)
        self.run_well("batch parts.csv --out whole --recipe first/run.json --quiet")
        table = self.table("whole")
        self.assertEqual([row["part"] for row in table], [f"part {k}" for k in range(500)])
        self.assertEqual({row["status"] for row in table}, {"done"})
        self.assertEqual(len(self.images("whole")), 500 * 8)
        shards = [self.start("batch parts.csv --out shards --recipe first/run.json --workers 1"
                             f" --quiet --shard {k}/4") for k in range(1, 5)]
        for shard in shards:
            said, _ = shard.communicate()
            self.assertEqual(shard.returncode, 0, said)
        self.assertIn("500 done, 0 failed, 0 open", self.run_well("merge shards"))
        self.assert_same_batch("shards", "whole")
        if distributed is None:
            self.skipTest("no cluster: apt-get install python3-distributed")
        self.run_on_dask("cluster", 500)
        self.assert_same_batch("cluster", "whole")

    def test_killed_and_repeated_at_any_moment_ends_like_an_undisturbed_run(self):
        self.make_parts(60)
        start = time.monotonic()
        self.run_well("batch parts.csv --out whole --recipe first/run.json --quiet")
        duration = time.monotonic() - start
        chance = random.Random(17)
        records = {}
        for k in range(10):
            process = self.start("batch parts.csv --out out --recipe first/run.json")
            time.sleep(chance.uniform(0.0, duration / 6))
            process.send_signal(signal.SIGKILL if k % 2 else signal.SIGTERM)
            process.communicate()
            for record, made in self.records("out").items():
                json.loads(record.read_text())  # complete
                self.assertEqual(records.setdefault(record, made), made, "made twice")
        self.run_well("batch parts.csv --out out --recipe first/run.json --quiet")
        self.assert_same_batch("out", "whole")
        self.assertLessEqual(records.items(), self.records("out").items(), "made twice")

    def test_parts_are_run_again_when_anything_of_theirs_has_changed(self):
        for name in "abc":
            self.make_part(f"parts/{name}")
        command = "batch 'parts/*/' --out out --recipe recipe.json"
        (self.folder / "recipe.json").write_bytes((self.folder / "first/run.json").read_bytes())
        self.assertIn("3 parts done", self.run_well(command))
        self.assertIn("0 parts done", self.run_well(command))
        Image.fromarray(self.scene[1]).save(self.folder / "parts/b/image1.png")
        (self.folder / "out/c/height.png").unlink()
        self.assertIn("2 parts done", self.run_well(command))
        self.assertIn("3 parts done", self.run_well(command + " --curvature-level 9"))
        for level in (1, 2):  # another mask by the same name
            mask = np.arange(48 * 40).reshape(40, 48) // 480 >= level
            Image.fromarray(mask.astype(np.uint8)).save(self.folder / "mask.png")
            said = self.run_well(command + " --curvature-level 9 --mask mask.png")
            self.assertIn("3 parts done", said)
        recipe = json.loads((self.folder / "recipe.json").read_text())["recipe"]
        recipe["blur_radius"] = 1
        (self.folder / "recipe.json").write_text(json.dumps(recipe))
        self.assertIn("3 parts done", self.run_well(command + " --curvature-level 9"))

    def test_options_of_reconstruct_mean_the_same(self):
        for k in range(2):
            self.make_part(f"parts/{k}", k)
        fall_off = np.linspace(0.5, 1.0, 48)
        (self.folder / "flat").mkdir()
        for k in range(4):
            flat = 200 * (fall_off if k % 2 else fall_off[::-1]) * np.ones((40, 1))
            Image.fromarray(flat.astype(np.uint8)).save(self.folder / f"flat/{k}.png")
        Image.fromarray(np.eye(40, 48, dtype=np.uint8) == 0).convert("L").save(self.folder / "mask.png")
        for n, options in enumerate((
                "--mask mask.png --flat flat --height-view", "--choose 3 --flat flat",
                "--mask auto --roi 4,4,30,20 --report --export surface.ply --decimate 2")):
            command = f"batch 'parts/*/' --out {n} --recipe first/run.json {options}"
            for shard in (1, 2):
                self.run_well(f"{command} --quiet --shard {shard}/2")
            self.assertIn("0 parts done", self.run_well(command))
            for k in range(2):
                self.run_well(f"reconstruct parts/{k} --out {n}/one/{k} --quiet"
                              f" --recipe first/run.json {options}")
            made, expected = self.images(f"{n}"), self.images(f"{n}/one")
            self.assertEqual({name: made[name] for name in expected if "report" not in name},
                             {name: value for name, value in expected.items() if "report" not in name})
            self.assertLessEqual(set(expected), set(made))

    def test_problems_are_all_said_before_the_first_part(self):
        self.make_part("good")
        self.make_part("two", images=2)
        self.make_part("other")
        Image.fromarray(self.scene[0][:-1]).save(self.folder / "other/image2.png")
        self.make_part("deep")
        Image.fromarray(self.scene[0].astype(np.uint16) * 9).save(self.folder / "deep/image0.png")
        lines = [{"part": "a", "folder": "good"}, {"part": "a", "folder": "good"},
                 {"part": "b", "folder": "two"}, {"part": "c", "folder": "other"},
                 {"part": "d", "folder": "none"}, {"part": "../e", "folder": "good"},
                 {"part": "f", "images": ["good/image0.png", "gone.png", "good/image1.png"]},
                 {"part": "g", "folder": "deep"}, {"part": "h"}, 7]
        text = "".join(json.dumps(line) + "\n" for line in lines) + "{\n"
        (self.folder / "parts.jsonl").write_text(text)
        code, said = self.call("batch parts.jsonl --out out --recipe first/run.json")
        self.assertEqual(code, 1, said)
        for problem in ("parts.jsonl:2: part a is there already: parts.jsonl:1",
                        "parts.jsonl:3: part b: ", "parts.jsonl:4: part c: other/image2.png: 48 x 39",
                        "parts.jsonl:5: part d: ", 'parts.jsonl:6: the part is called "../e"',
                        "parts.jsonl:7: part f: gone.png: no such file",
                        "parts.jsonl:8: part g: deep/image0.png: 16-bit", "parts.jsonl:9: expected",
                        "parts.jsonl:10: expected", "parts.jsonl:11: expected", "10 problems"):
            self.assertIn(problem, said)
        self.assertFalse((self.folder / "out").exists())

        good = "good/image0.png,good/image1.png,good/image2.png"
        for text, expected in (
                ("part,picture\na,b\n", "no column image1 (or folder)"),
                (f"image1,image2,image3\n{good}\n", "no column part"),
                (f"part,image1,image2,image3\na,{good},7\n", ":2: 5 cells; expected 4"),
                (f"part,image1,image2,image3\n\na,{good}\n\"b,{good}\n", "line 4: a quote"),
                (f"part,folder,image1,image2,image3\na,good,{good}\n", "both a folder and images"),
                ("part,folder\n", "no parts"), ("", "is empty")):
            (self.folder / "parts.csv").write_text(text)
            code, said = self.call("batch parts.csv --out out --recipe first/run.json")
            self.assertEqual((code, expected in said), (1, True), (text, said))
        for arguments, code, expected in (
                ("good", 2, "--choose-gains sample"),
                ("good --recipe first/run.json --shard 3/2", 2, "task 3 of 2"),
                ("good --recipe first/run.json --shard 0/2", 2, "I from 1 to N"),
                ("good --recipe first/run.json --shard auto", 2, "SLURM_ARRAY_TASK_ID"),
                ("good/* --recipe first/run.json", 1, "no such folder"),
                ("good --choose-gains bad", 2, "no part bad"),
                ("good --recipe first/run.json --mask other/image2.png", 1, "image2.png: 48 x 39"),
                ("other --choose-gains sample --flat good", 1, "48 x 39"),
                ("good --recipe first/run.json --flat two", 1, "2 images given"),
                ("gone.csv --recipe first/run.json", 1, "no such file")):
            self.assertEqual((self.call(f"batch {arguments} --out out")[0],
                              expected in self.call(f"batch {arguments} --out out")[1]),
                             (code, True), arguments)
        self.assertFalse((self.folder / "out").exists())
        # As a spreadsheet writes it where the comma is decimal.
        (self.folder / "parts.csv").write_bytes(
            b"\xef\xbb\xbfpart;lot;folder\r\n\"a \"\"1\"\"\";7;good\r\n")
        said = self.run_well("batch parts.csv --out out --recipe first/run.json")
        self.assertIn("column lot is not used", said)
        self.assertEqual(self.table("out")[0]["part"], 'a "1"')

    def test_what_fails_is_listed_and_the_rest_goes_on(self):
        for name in "abc":
            self.make_part(f"parts/{name}")
        broken = self.folder / "parts/b/image2.png"
        broken.write_bytes(broken.read_bytes()[:200])  # its header is whole
        code, said = self.call("batch 'parts/*/' --out out --recipe first/run.json")
        self.assertEqual(code, 1)
        self.assertIn("warning: part b: parts/b/image2.png: cannot be decoded", said)
        self.assertIn("1 of 3 parts failed; see the table out/results.csv", said)
        self.assertEqual([row["status"] for row in self.table("out")], ["done", "failed", "done"])
        self.assertIn("image2.png", self.table("out")[1]["error"])

    def test_gains_are_chosen_once_and_numbers_are_of_the_results(self):
        self.run_well("render --out parts/a --images 8 --size 160x120 --quiet")
        self.run_well("render --out parts/b --images 8 --size 160x120 --quiet --steepness 0.2")
        (self.folder / "all.json").write_text(json.dumps(
            {"recipe_version": 1, "run": "cali", "iteration_cap": -1}))
        self.run_well("batch 'parts/*/' --out out --recipe all.json --choose-gains sample"
                      " --curvature-level 40")
        recipe = json.loads((self.folder / "out/recipe.json").read_text())
        rows = self.table("out")
        for row, truth in zip(rows, "ab"):
            record = json.loads((self.folder / f"out/{truth}/run.json").read_text())
            self.assertEqual(record["recipe"], recipe)
            curvature = np.asarray(Image.open(self.folder / f"out/{truth}/curvature.png")).astype(int)
            self.assertEqual(float(row["curvature_share"]), (abs(curvature - 128) > 40).mean())
            height = np.asarray(Image.open(self.folder / f"parts/{truth}/truth/height.tiff"))
            # Slopes here are sines of angles, a few percent less than tangents.
            self.assertLess(abs(float(row["height_range"]) / np.ptp(height) - 0.95), 0.05)
        self.run_well("reconstruct parts/a --out steep --run cali --quiet")
        gains = json.loads((self.folder / "steep/run.json").read_text())["recipe"]["gains"]
        self.assertEqual(gains["curvature"], recipe["gains"]["curvature"])  # the smaller one

    def test_shards_come_from_the_environment(self):
        for k in range(5):
            self.make_part(f"parts/{k}")
        slurm = "SLURM_ARRAY_TASK_ID SLURM_ARRAY_TASK_MIN SLURM_ARRAY_TASK_MAX SLURM_ARRAY_TASK_COUNT"
        whole, again = dict(zip(slurm.split(), "2142")), dict(zip(slurm.split(), "2222"))
        whole["SLURM_ARRAY_TASK_COUNT"] = "4"
        command = "batch 'parts/*/' --out out --recipe first/run.json --shard"
        for shard, environment, part in (
                ("auto", whole, 1), ("auto/4", again, 1), ("auto/5", {"JOB_COMPLETION_INDEX": "4"}, 4)):
            said = self.run_well(f"{command} {shard}", env=environment)
            self.assertTrue((self.folder / f"out/{part}/run.json").exists(), said)
        self.assertEqual(self.call(f"{command} auto", env=again)[0], 2)
        code, said = self.call("merge out")
        self.assertEqual((code, "tables of" in said), (1, True), said)
        (self.folder / "out/results-5-of-5.csv").unlink()
        code, said = self.call("merge out")
        self.assertIn("missing: results-1-of-4.csv results-3-of-4.csv", said)


    def test_a_watched_folder_is_worked_through_until_a_signal_comes(self):
        def rows():
            path = self.folder / "out/results.csv"
            return {row["part"]: row["status"] for row in self.table("out")} if path.exists() else {}

        def start():
            return self.start("batch --watch parts --images 4 --quiet-time 0.3 --out out"
                              " --recipe first/run.json")

        self.make_part("whole/a")
        self.make_part("parts/a", images=3)
        self.make_part("parts/b", 1)
        watcher = start()
        self.wait_for(lambda: rows() == {"b": "done"})
        last = (self.folder / "whole/a/image3.png").read_bytes()
        late = self.folder / "parts/a/image3.png"
        late.write_bytes(last[:99])  # a station that is slower than the quiet time
        self.wait_for(lambda: rows() == {"a": "failed", "b": "done"})
        late.write_bytes(last)
        self.wait_for(lambda: rows() == {"a": "done", "b": "done"})
        watcher.send_signal(signal.SIGTERM)
        said, _ = watcher.communicate()
        self.assertEqual(watcher.returncode, 0, said)
        (self.folder / "parts/b").rename(self.folder / "parts/c")
        made = self.records("out")
        watcher = start()
        self.wait_for(lambda: rows() == {"a": "done", "b": "done", "c": "done"})
        watcher.send_signal(signal.SIGINT)
        said, _ = watcher.communicate()
        self.assertEqual(watcher.returncode, 0, said)
        self.assertLessEqual(made.items(), self.records("out").items())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:-1])
