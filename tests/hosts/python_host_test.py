"""The Python package: what goes to the host library and comes back, threads, processes, memory."""
import copy
import ctypes
import dataclasses
import gc
import json
import multiprocessing
import os
import pathlib
import pickle
import resource
import tempfile
import threading
import time
import unittest
import unittest.mock

import numpy as np

import velostrix
from velostrix import Parameters, Tool


def noise(count=4, shape=(60, 80), seed=7):
    return list(np.random.default_rng(seed).integers(0, 256, (count, *shape), np.uint8))


def expect_equal(result, expected):
    assert list(result) == list(expected)
    for name, image in expected.items():
        np.testing.assert_array_equal(result[name], image, name)


FLAT = ((1.0, 0.0, -0.125, 0.0, 0.0, 0.25) + 9 * (0.0,),) * 4
CURVATURE = Parameters(outputs=["curvature"])


class Marshalling(unittest.TestCase):
    def test_results_have_their_shapes_and_types_and_show_themselves(self):
        result = velostrix.reconstruct(noise())
        self.assertEqual(list(result), list(velostrix.OUTPUTS))
        for name, image in result.items():
            self.assertEqual(image.shape, (60, 80, 3) if name == "normal" else (60, 80))
            self.assertEqual(image.dtype, np.uint16 if name == "height" else np.uint8)
            self.assertTrue(image.flags.owndata)
        for k in range(3):
            np.testing.assert_array_equal(result.normal[..., k], result[f"channel{k}"])
        self.assertGreater(min(result.timings.images + (result.timings.run,)), 0.0)
        self.assertEqual(len(result.timings.images), 4)
        self.assertRegex(repr(result), r"uncali, 80 x 60 pixels.*\n.*factor.*height.*\n.*curvature")
        self.assertEqual(len(repr(result).splitlines()), 3)
        shown = velostrix.reconstruct(noise(shape=(300, 400)), iteration_cap=3)._repr_html_()
        self.assertEqual(shown.count("data:image/png"), 8)
        self.assertIn("<iframe srcdoc", shown)
        self.assertLess(len(shown), 1_000_000)
        self.assertRaisesRegex(FileNotFoundError, "nowhere: .*build or install", result.report,
                               "page.html", noise(), program="nowhere")
        with unittest.mock.patch.dict("sys.modules", PIL=None):
            self.assertIsNone(result._repr_html_())
        expect_equal(pickle.loads(pickle.dumps(result)), result)
        height = velostrix.reconstruct(noise(), outputs=["height"])
        self.assertEqual(list(height), ["height"])
        text = "'curvature' was not made, only height"
        self.assertRaisesRegex(KeyError, text, height.__getitem__, "curvature")
        self.assertRaisesRegex(AttributeError, text, getattr, height, "curvature")

    def test_pixels_may_lie_apart_and_have_16_bits(self):
        wide = np.zeros((60, 200), np.uint8)
        colour = np.zeros((60, 80, 3), np.uint8)
        wide_16 = np.zeros((60, 99), np.uint16)
        layouts = {
            "rows apart": (0, lambda image: fill(wide[:, 7:87], image)),
            "pixels apart": (0, lambda image: fill(colour[:, :, 1], image)),
            "upside down": (0, lambda image: image[::-1].copy()[::-1]),
            "columns first": (0, np.asfortranarray),
            "12 bits": (12, lambda image: fill(wide_16[:, 9:89], np.rint(image / 255 * 4095))),
            "another byte order": (16, lambda image: (image * np.uint16(257)).astype(">u2")),
        }

        def fill(array, image):
            array[...] = image
            return array

        expected = Tool().reconstruct(noise(), CURVATURE)
        for name, (bits, layout) in layouts.items():
            with self.subTest(name), Tool() as tool:
                tool.prepare(4, (60, 80), dataclasses.replace(CURVATURE, bits=bits))
                for image in noise():
                    tool.set_image(layout(image))
                expect_equal(tool.run(), expected)

    def test_a_mask_leaves_pixels_out(self):
        mask = np.full((60, 80), 7, np.uint8)
        mask[:, :9] = 0
        tool = Tool()
        tool.set_mask(mask)
        masked = tool.reconstruct(noise())
        self.assertTrue((masked.channel0[:, :9] == 128).all() and (masked.height[:, :9] == 0).all())
        self.assertGreater(tool.mask_unlit(noise()), 0.9)
        tool.set_mask(None)
        expect_equal(tool.reconstruct(noise()), Tool().reconstruct(noise()))

    def test_every_parameter_arrives_and_comes_back(self):
        recipe = pathlib.Path(__file__).with_name("recipe.json")
        outputs = ("factor", "curvature", "magnitude", "height", "channel1", "channel2", "normal")
        parameters = Parameters(
            "partcols", 20, outputs, (8, 6, 80, 60), 0.75, True, "forward", 2, 30,
            "upright", (1, 90.5), 12,
            {"factor": 0.9, "curvature": 300.5, "magnitude": 200.25, "channel1": -90, "channel2": 4000},
            {"curvature": 120, "magnitude": 3, "channel0": 100, "channel2": -5}, 3500, FLAT)
        self.assertEqual(Parameters.load(recipe), parameters)
        self.assertEqual(json.loads(parameters.to_json()), json.loads(recipe.read_text()))
        for field in dataclasses.fields(Parameters):
            given, plain = getattr(parameters, field.name), getattr(Parameters(), field.name)
            self.assertNotEqual(given, plain, f"give {field.name} another value")
        self.assertEqual(Parameters.from_json('{"recipe_version": 1}'), Parameters())
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "recipe.json")
            parameters.save(path)
            self.assertEqual(Parameters.load(str(path)), parameters)
            path.write_text('{"recipe_version": 1, "blur": 2}')
            self.assertRaisesRegex(ValueError, "recipe.json: recipe: blur", Parameters.load, path)

    def test_flat_fields_folders_and_views(self):
        y, x = np.mgrid[0:60, 0:80] / 40 - 0.5
        lights = [np.exp(-(x - a) ** 2 - y * b) for a, b in ((0, 0), (1, 0), (0, 1), (1, 1))]
        shots = [np.rint(60000 * light / 3).astype(np.uint16) for light in lights]
        flat = velostrix.fit_flat(shots, Parameters(white=60000, outputs=["channel0", "height"]))
        result = velostrix.reconstruct(shots, flat)
        self.assertEqual((len(flat.flat), flat.white), (4, 60000))
        dark = [shot // 99 for shot in shots]
        self.assertRaisesRegex(ValueError, "reference 1 .* dark", velostrix.fit_flat, dark, flat)
        self.assertRaisesRegex(ValueError, "fields of 15", velostrix.reconstruct, shots, flat=[[1]])
        self.assertRaisesRegex(ValueError, "3 images given, but flat has the fields of 4 lamps",
                               velostrix.reconstruct, shots[:3], flat)

        mask = np.ones((60, 80), np.uint8)
        mask[:, :9] = 0
        view = result.height_view("plane", 5, mask)
        self.assertEqual((view.shape, view.dtype, view[:, :9].any()), ((60, 80), np.uint8, False))
        self.assertGreater(np.ptp(view[5:-5, 5:-5].astype(int)), 250)
        self.assertRaisesRegex(ValueError, "plane, quadratic", result.height_view, "cone")
        with tempfile.TemporaryDirectory() as folder:
            for name in ("b10.PNG", "b9.png", "a.txt", "b09.tif", "b.jpg"):
                pathlib.Path(folder, name).touch()
            names = [path.name for path in velostrix.image_files(folder)]
        self.assertEqual(names, ["b.jpg", "b9.png", "b09.tif", "b10.PNG"])

    def test_chosen_gains_can_be_given_again_and_given_ones_are_kept(self):
        for chosen in (Parameters("cali"), Parameters(), Parameters(gains={"channel2": 9.0})):
            first = velostrix.reconstruct(noise(), chosen)
            expect_equal(Tool().reconstruct(noise(), first.parameters), first)
        given = velostrix.reconstruct(noise(), gains={"channel0": 5.0}, offsets={"curvature": 99})
        self.assertEqual(given.parameters.gains["channel0"], 5.0)
        self.assertEqual(given.parameters.offsets["curvature"], 99)
        bright = velostrix.reconstruct([image // 2 + 99 for image in noise()])
        self.assertEqual(bright.parameters.offsets["channel2"], 0)

    def test_diagnostics_name_the_images(self):
        images = noise()
        images[2] = images[1] * np.uint8(0)
        found = velostrix.diagnose(images[:3] + images[:1], names=["a", pathlib.Path("b"), "c", "d"])
        self.assertRegex(" ".join(found.warnings), "c: dark all over.* d: equal to a")
        self.assertEqual([e.equal_to for e in found.exposures], [None, None, None, 0])
        self.assertEqual([e.is_dead for e in found.exposures], [False, False, True, False])
        self.assertEqual(len(found.singular_values), 4)
        self.assertIsNone(found.unexplained_by_ring)
        self.assertGreater(velostrix.diagnose(noise(), Parameters("cali")).unexplained_by_ring, 0.0)

    def test_what_is_wrong_is_named_with_what_to_do(self):
        good, to_bytes = noise(), r".*: image = .*astype\(np.uint8\)"
        cases = [
            (TypeError, "^images: None", None, {}),
            (TypeError, r"^images\[3\]: None", good[:3] + [None], {}),
            (ValueError, "^image 4 has 80 x 59 pixels", good[:3] + [good[3][1:]], {}),
            (ValueError, r"^images\[0\]: has shape \(6,\)", [np.zeros(6, np.uint8)] * 3, {}),
            (ValueError, "^run: 'fast' is unknown", good, {"run": "fast"}),
            (ValueError, "^outputs: 'depth' is unknown", good, {"outputs": ["depth"]}),
            (TypeError, "^outputs: 'height' given", good, {"outputs": "height"}),
            (ValueError, "^region: .* expected .x, y, width, height", good, {"region": (0, 0, 2)}),
            (TypeError, "^region: 20.5", good, {"region": (0, 0, 20.5, 20)}),
            (ValueError, "^lamp: .* expected .image, degrees", good, {"lamp": (0,)}),
            (ValueError, "^blur_radius: 4294967296", good, {"blur_radius": 2**32}),
            (ValueError, "^scale: 1000", good, {"scale": 10**400}),
            (ValueError, "^gains: 'height' is unknown", good, {"gains": {"height": 1.0}}),
            (TypeError, r"^gains\['factor'\]: 'x'", good, {"gains": {"factor": "x"}}),
            (TypeError, r"^offsets\['channel0'\]: 1.5", good, {"offsets": {"channel0": 1.5}}),
            (TypeError, "unexpected keyword argument 'blur'", good, {"blur": 1}),
        ]
        cases += [(TypeError, f"^{field.name}: None given", good, {field.name: None})
                  for field in dataclasses.fields(Parameters) if field.name not in ("region", "lamp")]
        for error, text, images, changes in cases:
            with self.subTest(text, changes=changes):
                self.assertRaisesRegex(error, text, velostrix.reconstruct, images, **changes)
        tool = Tool()
        for text, call, *arguments in [
            ("^count: None", tool.prepare, None, (60, 80)), ("^shape: None", tool.prepare, 4, None),
            ("^parameters: None", tool.prepare, 4, (60, 80), None),
            ("^parameters: 'cali'", velostrix.reconstruct, good, "cali"),
            ("^image: None", tool.set_image, None), ("^path: None", Parameters.load, None),
            ("^names: None", tool.diagnose, good, Parameters(), [None] * 4),
            ("^recipe: None", Parameters.from_json, None), ("^count: None", velostrix.set_threads, None),
        ]:
            with self.subTest(call=call):
                self.assertRaisesRegex(TypeError, text, call, *arguments)
        self.assertRaisesRegex(ValueError, "^names: 1 given", tool.diagnose, good, Parameters(), ["a"])

        grey = good[0] // 2  # below 128, so that colours of it average exactly
        for image in (grey / 255, grey.astype(np.float32), grey.astype(int),
                      np.dstack([grey] * 3), np.dstack([grey] * 4)):
            with self.assertRaisesRegex((TypeError, ValueError), to_bytes) as refused:
                tool.set_image(image)
            names = {"image": image, "np": np}
            exec(str(refused.exception).split("convert it: ")[1], names)  # the line it gives
            np.testing.assert_array_equal(names["image"], grey)


class Use(unittest.TestCase):
    def test_calls_out_of_order_and_copies_are_refused(self):
        tool = Tool()
        self.assertRaisesRegex(RuntimeError, "prepare", tool.set_image, noise()[0])
        for duplicate in (copy.copy, copy.deepcopy, pickle.dumps):
            self.assertRaisesRegex(TypeError, "copied or pickled", duplicate, tool)
        tool.prepare(4, (60, 80), CURVATURE)
        for image in noise():
            self.assertRaises(ValueError, tool.prepare, 4, (60, 80), Parameters(blur_radius=-1))
            tool.set_image(image)
        expect_equal(tool.run(), Tool().reconstruct(noise(), CURVATURE))
        tool.close()
        tool.close()
        self.assertRaisesRegex(RuntimeError, "closed", tool.run)

    def test_views_keep_their_memory_alive_and_copies_their_levels(self):
        expected = Tool().reconstruct(noise())
        closed = Tool()
        views = [Tool().reconstruct(noise(), copy=False), closed.reconstruct(noise(), copy=False)]
        closed.close()
        gc.collect()
        others = [Tool().reconstruct(noise(seed=seed)) for seed in range(8)]
        for view in views:
            expect_equal(view, expected)
            self.assertFalse(view.height.flags.writeable)
        self.assertFalse((others[0].curvature == expected.curvature).all())

    def test_other_threads_go_on_during_a_run_but_not_with_its_tool(self):
        images, results, refused = noise(shape=(200, 300)), [], 0
        tool = Tool()
        tool.prepare(4, (200, 300), Parameters(outputs=["height"], iteration_cap=2000))
        for image in images:
            tool.set_image(image)

        def run_when_free():
            while not results:
                try:
                    results.append(tool.run())
                except RuntimeError as error:
                    assert "another thread" in str(error), error

        worker = threading.Thread(target=run_when_free)
        worker.start()
        while worker.is_alive():
            try:
                tool.set_image(images[0])
            except RuntimeError as error:
                refused += "another thread" in str(error)
            time.sleep(0.0001)
        worker.join()
        self.assertGreater(refused, 0)
        self.assertNotIsInstance(velostrix._native._library, ctypes.PyDLL)  # holds the interpreter
        self.assertEqual(list(results[0]), ["height"])

    def test_forked_processes_go_on_with_the_tool(self):
        # The height has used threads before, which are not in the children.
        images, tool = noise(shape=(300, 400)), Tool()
        expected = Tool().reconstruct(images)
        tool.prepare(4, (300, 400))
        for image in images:
            tool.set_image(image)

        def child():
            expect_equal(tool.run(), expected)
            expect_equal(tool.reconstruct(images), expected)

        self.assertEqual(exit_codes(child, child), [0, 0])
        expect_equal(tool.run(), expected)

    @unittest.skipIf("asan" in os.environ.get("LD_PRELOAD", ""), "its shadow is address space")
    def test_too_little_memory_is_a_memory_error_at_every_limit(self):
        def child():
            images, small, tool = noise(shape=(1000, 1000)), noise(), Tool()
            expected = Tool().reconstruct(small)
            page = resource.getpagesize()
            used = int(pathlib.Path("/proc/self/statm").read_text().split()[0]) * page
            unlimited = resource.getrlimit(resource.RLIMIT_AS)
            refused = 0
            for megabytes in range(0, 4096, 8):
                limit = used + (megabytes << 20)
                resource.setrlimit(resource.RLIMIT_AS, (limit, unlimited[1]))
                try:
                    tool.reconstruct(images)
                    break
                except MemoryError:
                    refused += 1
                finally:
                    resource.setrlimit(resource.RLIMIT_AS, unlimited)
                expect_equal(tool.reconstruct(small), expected)
            assert refused > 3, refused

        self.assertEqual(exit_codes(child), [0])


def exit_codes(*jobs):
    children = [multiprocessing.get_context("fork").Process(target=job) for job in jobs]
    for child in children:
        child.start()
    for child in children:
        child.join()
    return [child.exitcode for child in children]


if __name__ == "__main__":
    unittest.main()
