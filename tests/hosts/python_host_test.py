"""The Python package: results, refusals that name the argument, memory, threads."""
import ctypes
import threading
import time
import unittest
import unittest.mock

import numpy as np

import velostrix
from velostrix import _native


def lit_bump(count=4, rows=60, cols=80, seed=7):
    """A bump under `count` lamps, with noise."""
    random = np.random.default_rng(seed)
    y, x = np.mgrid[:rows, :cols]
    height = 8.0 * np.exp(-((x - cols / 2) ** 2 + (y - rows / 2) ** 2) / 150.0)
    q, p = np.gradient(height)
    steepness = np.sqrt(p * p + q * q + 1.0)
    images = []
    for angle in 2.0 * np.pi * np.arange(count) / count:
        shading = (np.cos(angle) * p + np.sin(angle) * q + 2.0) / steepness
        noisy = 60.0 * shading + random.normal(0.0, 1.0, (rows, cols))
        images.append(np.clip(noisy, 0, 255).astype(np.uint8))
    return images


class Reconstruction(unittest.TestCase):
    def test_all_outputs_have_their_shapes_and_types(self):
        images = lit_bump()
        for run in velostrix.RUNS:
            with self.subTest(run=run):
                result = velostrix.reconstruct(images, run=run, band=20)
                self.assertEqual(list(result), list(velostrix.OUTPUTS))
                for name, image in result.items():
                    self.assertEqual(image.shape, (60, 80, 3) if name == "normal" else (60, 80))
                    self.assertEqual(image.dtype, np.uint16 if name == "height" else np.uint8)
                    self.assertTrue(image.flags.owndata)
                for k in range(3):
                    np.testing.assert_array_equal(result.normal[:, :, k], result[f"channel{k}"])
                self.assertEqual(len(result.timings.images), len(images))
                self.assertGreater(result.timings.run, 0.0)

    def test_only_what_is_asked_for_is_made(self):
        result = velostrix.reconstruct(lit_bump(), outputs=["height"])
        self.assertEqual(list(result), ["height"])
        with self.assertRaisesRegex(KeyError, "curvature"):
            result["curvature"]

    def test_region_and_scale_give_images_of_the_region_size(self):
        images = lit_bump()
        part = velostrix.reconstruct(images, roi=(10, 5, 50, 40))
        self.assertEqual(part.height.shape, (40, 50))
        cut = velostrix.reconstruct([image[5:45, 10:60] for image in images])
        for name, image in part.items():
            np.testing.assert_array_equal(image, cut[name], name)
        self.assertEqual(velostrix.reconstruct(images, scale=0.5).normal.shape, (60, 80, 3))

    def test_pixels_may_lie_apart(self):
        images = lit_bump()
        expected = velostrix.reconstruct(images, gains={"curvature": 500.0}).curvature
        wide = np.zeros((60, 200), np.uint8)
        colour = np.zeros((60, 80, 3), np.uint8)
        layouts = {
            "rows apart": lambda image: wide[:, 7:87],
            "pixels apart": lambda image: colour[:, :, 1],
            "upside down": lambda image: image[::-1].copy()[::-1],
            "columns first": lambda image: np.asfortranarray(image),
        }
        for name, layout in layouts.items():
            with self.subTest(name), velostrix.Tool() as tool:
                parameters = velostrix.Parameters(
                    outputs=["curvature"], gains={"curvature": 500.0}
                )
                tool.prepare(len(images), images[0].shape, parameters)
                for image in images:
                    wide[:, 7:87] = image
                    colour[:, :, 1] = image
                    tool.set_image(layout(image))
                np.testing.assert_array_equal(tool.run().curvature, expected)

    def test_automatic_gains_fill_the_range_and_can_be_kept(self):
        images = lit_bump()
        first = velostrix.reconstruct(images)
        low, high = np.percentile(first.channel0, (1, 99))
        self.assertTrue(low <= 20 or high >= 236, (low, high))
        self.assertGreater(np.percentile(first.channel2, 99), 200)
        again = velostrix.reconstruct(
            images, gains=first.parameters.gains, offsets=first.parameters.offsets
        )
        for name, image in first.items():
            np.testing.assert_array_equal(image, again[name], name)
        shifted = velostrix.reconstruct(images, offsets={"curvature": 100})
        self.assertEqual(shifted.parameters.offsets["curvature"], 100)


class Refusals(unittest.TestCase):
    def test_bad_arguments_are_named(self):
        images = lit_bump()
        other = [image.astype(np.float32) for image in images]
        cases = [
            (ValueError, "^images: 2 given", (images[:2],), {}),
            (ValueError, "^images: 0 given", ([],), {}),
            (ValueError, "^images: 2 x 60 pixels", ([i[:, :2] for i in images],), {}),
            (TypeError, r"^images\[0\]: holds float32", (other,), {}),
            (ValueError, r"^images\[3\]: has shape", (images[:3] + [images[3][1:]],), {}),
            (ValueError, r"^images\[0\]: has shape", ([np.zeros((4, 4, 3), np.uint8)] * 3,), {}),
            (ValueError, "^run: 'fast' is unknown", (images, "fast"), {}),
            (ValueError, "^roi:", (images,), {"roi": (0, 0, 81, 60)}),
            (ValueError, "^roi:", (images,), {"roi": (-1, 0, 10, 10)}),
            (ValueError, "^roi:", (images,), {"roi": (0, 0, 2, 2)}),
            (ValueError, "^roi:", (images,), {"roi": (0, 0, 2)}),
            (TypeError, "^roi:", (images,), {"roi": (0, 0, 20.5, 20)}),
            (ValueError, "^scale:", (images,), {"scale": 0}),
            (ValueError, "^scale:", (images,), {"scale": float("nan")}),
            (ValueError, "^outputs: 'colour'", (images,), {"outputs": ["colour"]}),
            (TypeError, "^outputs:", (images,), {"outputs": "height"}),
            (ValueError, "^difference:", (images,), {"difference": "left"}),
            (ValueError, "^blur:", (images,), {"blur": 40000}),
            (TypeError, "^iterations:", (images,), {"iterations": 1.5}),
            (ValueError, "^gains: 'height'", (images,), {"gains": {"height": 1.0}}),
            (ValueError, r"^gains\['factor'\]", (images,), {"gains": {"factor": float("inf")}}),
            (TypeError, r"^offsets\['channel0'\]", (images,), {"offsets": {"channel0": "up"}}),
        ]
        for error, text, arguments, keywords in cases:
            with self.subTest(text=text, keywords=keywords):
                self.assertRaisesRegex(error, text, velostrix.reconstruct, *arguments, **keywords)

    def test_a_tool_in_the_wrong_order_refuses_and_goes_on(self):
        images = lit_bump()
        tool = velostrix.Tool()
        self.assertRaisesRegex(RuntimeError, "prepare", tool.set_image, images[0])
        self.assertRaisesRegex(RuntimeError, "prepare", tool.run)
        tool.prepare(4, (60, 80))
        tool.set_image(images[0])
        self.assertRaisesRegex(RuntimeError, "1 of 4", tool.run)
        for image in images[1:]:
            tool.set_image(image)
        self.assertRaisesRegex(ValueError, "all 4", tool.set_image, images[0])
        self.assertRaises(ValueError, tool.prepare, 9, (60, 80))
        self.assertEqual(tool.run().height.shape, (60, 80))
        self.assertRaisesRegex(RuntimeError, "0 of 4", tool.run)
        tool.close()
        tool.close()
        self.assertRaisesRegex(RuntimeError, "prepare", tool.run)

    def test_a_failed_allocation_is_a_memory_error(self):
        with unittest.mock.patch.object(
            _native.module, "SetVelostrixUnCalibrationToolImage_CPU_csharp", lambda *_: False
        ), velostrix.Tool() as tool:
            tool.prepare(3, (20, 20))
            self.assertRaisesRegex(MemoryError, "smaller scale", tool.set_image, np.zeros((20, 20), np.uint8))


class Lifetimes(unittest.TestCase):
    def test_views_show_the_next_run_and_copies_stay(self):
        first, second = lit_bump(seed=1), lit_bump(seed=2)
        parameters = velostrix.Parameters(outputs=["curvature"])
        with velostrix.Tool() as tool:
            def run(images, **keywords):
                tool.prepare(4, (60, 80), parameters)
                for image in images:
                    tool.set_image(image)
                return tool.run(**keywords).curvature

            view = run(first, copy=False)
            copy = view.copy()
            owned = run(second)
            self.assertTrue((view == owned).all())
            self.assertFalse((copy == owned).all())

    def test_the_geometry_may_change_and_change_back(self):
        images = lit_bump()
        small = [image[:30, :40] for image in images[:3]]
        with velostrix.Tool() as tool:
            results = []
            for frames, scale in ((images, 1.0), (small, 0.5), (images, 1.0)):
                tool.prepare(len(frames), frames[0].shape, velostrix.Parameters(scale=scale))
                for frame in frames:
                    tool.set_image(frame)
                results.append(tool.run())
        np.testing.assert_array_equal(results[0].height, results[2].height)
        self.assertEqual(results[1].height.shape, (30, 40))

    def test_other_threads_go_on_during_a_run(self):
        self.assertFalse(isinstance(_native.module, ctypes.PyDLL))
        # The run takes as many iterations as it needs: long against the other thread's steps.
        images = lit_bump(rows=300, cols=400)
        steps_during_run = 0
        with velostrix.Tool() as tool:
            tool.prepare(4, (300, 400), velostrix.Parameters(outputs=["height"], iterations=3000))
            for image in images:
                tool.set_image(image)
            is_running, is_done = threading.Event(), threading.Event()

            def count_steps():
                nonlocal steps_during_run
                is_running.wait()
                while not is_done.is_set():
                    steps_during_run += 1
                    time.sleep(0.0001)

            counter = threading.Thread(target=count_steps)
            counter.start()
            is_running.set()
            steps_at_start = steps_during_run
            tool.run()
            seen = steps_during_run - steps_at_start
            is_done.set()
            counter.join()
        self.assertGreater(seen, 20)


class Records(unittest.TestCase):
    def test_offsets_are_those_of_the_header(self):
        param = _native.UnCalibrationParam
        for name, offset in (
            ("output_enable", 16), ("scale", 48), ("factor_offset", 68), ("factor_gain", 72),
            ("curvature", 80), ("magnitude", 96), ("channel", 112), ("equalise_on", 192),
        ):
            self.assertEqual(getattr(param, name).offset, offset, name)
        self.assertEqual(_native.ImageRecord.type_code.offset, 24)


if __name__ == "__main__":
    unittest.main()
