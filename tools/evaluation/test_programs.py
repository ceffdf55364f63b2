"""Checks of the evaluation's window into the program: the seeds dump_seeds
writes, and the decoding of the program's colour-coded results back to track
label numbers.

    DENSESEG_BUILD=build-host python3 tools/evaluation/test_programs.py

Exits with 77 (skipped, for ctest) when numpy is not installed or the build
folder lacks denseseg or dump_seeds.
"""

import os
import sys
import tempfile
import unittest
from pathlib import Path

try:
    import numpy as np
except ImportError:
    print("numpy is not installed: checks of the programs skipped")
    sys.exit(77)

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from evaluation import generate, pnm, run  # noqa: E402

BUILD = Path(os.environ.get("DENSESEG_BUILD", "build-host")).resolve()
try:
    TOOLS = run.Tools(BUILD)
except FileNotFoundError as e:
    print(f"{e}: checks of the programs skipped")
    sys.exit(77)


class SeedsTest(unittest.TestCase):
    def test_seed_image_holds_label_numbers(self):
        with tempfile.TemporaryDirectory() as d:
            folder = Path(d)
            tracks = [
                generate.Track(42, [(5.5, 3.2, 0), (6.0, 3.0, 1)]),
                generate.Track(7, [(0.0, 4.0, 0), (2.9, 1.1, 0)]),  # column 0 is refused
                generate.Track(99, [(9.99, 5.5, 0)]),
            ]
            generate.write_tracks(folder / "tracks.dat", 2, tracks)
            seeds = TOOLS.seeds(folder, 0, 10, 6)
            expected = np.full((6, 10), run.UNSEEDED, dtype=np.uint8)
            expected[3, 5], expected[1, 2], expected[5, 9] = 42, 7, 99
            np.testing.assert_array_equal(seeds, expected)
            # A frame past the file's frame count has no seeds.
            self.assertTrue((TOOLS.seeds(folder, 2, 10, 6) == run.UNSEEDED).all())

    def test_palette_has_a_distinct_colour_per_label_number(self):
        self.assertEqual(TOOLS.palette.shape, (100, 3))
        self.assertEqual(len({tuple(c) for c in TOOLS.palette}), 100)


class ProgramRunTest(unittest.TestCase):
    def test_results_decode_to_track_label_numbers(self):
        # Two flat halves; the right one's label is met first in the file, so
        # label indices and label numbers differ.
        w, h = 40, 30
        image = np.zeros((h, w, 3), dtype=np.uint8)
        image[:, :20] = (200, 40, 40)
        image[:, 20:] = (40, 40, 200)
        truth = np.where(np.arange(w)[None, :] < 20, 42, 3).repeat(h, axis=0)
        with tempfile.TemporaryDirectory() as d:
            folder = Path(d)
            (folder / "frames").mkdir()
            tracks = []
            for t in range(2):
                pnm.write(folder / "frames" / f"frame_{t:03d}.ppm", image)
                for y in range(5, h, 10):
                    tracks.append(generate.Track(3, [(30.5, y + 0.5, t)]))
                    tracks.append(generate.Track(42, [(8.5, y + 0.5, t)]))
            generate.write_tracks(folder / "tracks.dat", 2, tracks)
            mode = run.definition_mode("definition", "definition", 100, 200)
            result = run.run_program(TOOLS, folder, mode)
        self.assertEqual(len(result.predictions), 2)
        for pred in result.predictions:
            self.assertGreater(np.mean(pred == truth), 0.95)
        self.assertGreater(result.seconds_per_frame, 0)


if __name__ == "__main__":
    unittest.main()
