"""The Python package: results, refusals that name the argument, memory, threads."""
import ctypes
import threading
import time
import unittest
import unittest.mock

import numpy as np

import velostrix
from velostrix import _native


def noise(count=4, shape=(60, 80), seed=7):
    return list(np.random.default_rng(seed).integers(0, 256, (count, *shape), np.uint8))


def run(tool, images, parameters=velostrix.Parameters(), **keywords):
    tool.prepare(len(images), images[0].shape, parameters)
    for image in images:
        tool.set_image(image)
    return tool.run(**keywords)


CURVATURE = velostrix.Parameters(outputs=["curvature"])


class Reconstruction(unittest.TestCase):
    def test_images_have_their_shapes_and_types_and_are_those_asked_for(self):
        result = velostrix.reconstruct(noise())
        self.assertEqual(list(result), list(velostrix.OUTPUTS))
        for name, image in result.items():
            self.assertEqual(image.shape, (60, 80, 3) if name == "normal" else (60, 80))
            self.assertEqual(image.dtype, np.uint16 if name == "height" else np.uint8)
            self.assertTrue(image.flags.owndata)
        self.assertEqual(len(result.timings.images), 4)
        self.assertGreater(result.timings.run, 0.0)
        result = velostrix.reconstruct(noise(), outputs=["height"])
        self.assertEqual(list(result), ["height"])
        with self.assertRaisesRegex(KeyError, "curvature"):
            result["curvature"]

    def test_pixels_may_lie_apart(self):
        wide = np.zeros((60, 200), np.uint8)
        colour = np.zeros((60, 80, 3), np.uint8)
        layouts = {
            "rows apart": lambda image: wide[:, 7:87],
            "pixels apart": lambda image: colour[:, :, 1],
            "upside down": lambda image: image[::-1].copy()[::-1],
            "columns first": lambda image: np.asfortranarray(image),
        }
        with velostrix.Tool() as tool:
            expected = run(tool, noise(), CURVATURE).curvature
            for name, layout in layouts.items():
                for image in noise():
                    wide[:, 7:87] = image
                    colour[:, :, 1] = image
                    tool.set_image(layout(image))
                np.testing.assert_array_equal(tool.run().curvature, expected, name)

    def test_chosen_gains_can_be_given_again_and_given_offsets_are_kept(self):
        first = velostrix.reconstruct(noise())
        chosen = first.parameters
        again = velostrix.reconstruct(noise(), gains=chosen.gains, offsets=chosen.offsets)
        for name, image in first.items():
            np.testing.assert_array_equal(image, again[name], name)
        given = velostrix.reconstruct(noise(), gains={"channel0": 5.0}, offsets={"curvature": 100})
        self.assertEqual(given.parameters.gains["channel0"], 5.0)
        self.assertEqual(given.parameters.offsets["curvature"], 100)


class Refusals(unittest.TestCase):
    def test_bad_arguments_are_named(self):
        good = noise()
        for error, text, images, keywords in [
            (ValueError, "^images: 2 given", good[:2], {}),
            (ValueError, "^images: 0 given", [], {}),
            (ValueError, "^images: 2 x 60 pixels", [image[:, :2] for image in good], {}),
            (TypeError, r"^images\[0\]: holds float32", [i.astype(np.float32) for i in good], {}),
            (ValueError, r"^images\[3\]: has shape", good[:3] + [good[3][1:]], {}),
            (ValueError, r"^images\[0\]: has shape", [np.zeros((4, 4, 3), np.uint8)] * 3, {}),
            (ValueError, "^run: 'fast' is unknown", good, {"run": "fast"}),
            (ValueError, "^roi:", good, {"roi": (1, 0, 80, 60)}),
            (ValueError, "^roi:", good, {"roi": (-1, 0, 10, 10)}),
            (ValueError, "^roi:", good, {"roi": (0, 0, 2, 2)}),
            (ValueError, "^roi:", good, {"roi": (0, 0, 2)}),
            (TypeError, "^roi:", good, {"roi": (0, 0, 20.5, 20)}),
            (ValueError, "^scale:", good, {"scale": 0}),
            (ValueError, "^scale:", good, {"scale": float("nan")}),
            (ValueError, "^outputs: 'colour'", good, {"outputs": ["colour"]}),
            (TypeError, "^outputs:", good, {"outputs": "height"}),
            (ValueError, "^difference:", good, {"difference": "left"}),
            (ValueError, "^blur:", good, {"blur": 32768}),
            (TypeError, "^iterations:", good, {"iterations": 1.5}),
            (ValueError, "^gains: 'height'", good, {"gains": {"height": 1.0}}),
            (ValueError, r"^gains\['factor'\]", good, {"gains": {"factor": float("inf")}}),
            (TypeError, r"^offsets\['channel0'\]", good, {"offsets": {"channel0": "up"}}),
        ]:
            with self.subTest(text, keywords=keywords):
                self.assertRaisesRegex(error, text, velostrix.reconstruct, images, **keywords)

    def test_a_tool_in_the_wrong_order_refuses_and_goes_on(self):
        images = noise()
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
        setter = "SetVelostrixUnCalibrationToolImage_CPU_csharp"
        with unittest.mock.patch.object(_native.module, setter, lambda *_: False):
            self.assertRaisesRegex(MemoryError, "smaller scale", run, velostrix.Tool(), noise())


class Lifetimes(unittest.TestCase):
    def test_views_show_the_next_run_and_copies_stay(self):
        with velostrix.Tool() as tool:
            view = run(tool, noise(), CURVATURE, copy=False).curvature
            copy = view.copy()
            owned = run(tool, noise(seed=8), CURVATURE).curvature
            np.testing.assert_array_equal(view, owned)
            self.assertFalse((copy == owned).all())

    def test_the_geometry_may_change_and_change_back(self):
        part = velostrix.Parameters(scale=0.5, roi=(1, 2, 40, 30))
        with velostrix.Tool() as tool:
            first = run(tool, noise())
            self.assertEqual(run(tool, noise(), part).height.shape, (30, 40))
            np.testing.assert_array_equal(run(tool, noise()).height, first.height)

    def test_other_threads_go_on_during_a_run(self):
        self.assertNotIsInstance(_native.module, ctypes.PyDLL)
        # The run takes as many iterations as it needs: long against the other thread's steps.
        steps, is_done = 0, threading.Event()

        def count_steps():
            nonlocal steps
            while not is_done.is_set():
                steps += 1
                time.sleep(0.0001)

        tool = velostrix.Tool()
        tool.prepare(4, (300, 400), velostrix.Parameters(outputs=["height"], iterations=3000))
        for image in noise(shape=(300, 400)):
            tool.set_image(image)
        counter = threading.Thread(target=count_steps)
        counter.start()
        steps_at_start = steps
        tool.run()
        seen = steps - steps_at_start
        is_done.set()
        counter.join()
        self.assertGreater(seen, 20)


if __name__ == "__main__":
    unittest.main()
