"""Checks of the evaluation's window into the program: the seeds dump_seeds
writes, the cost maps dump_costs writes, and the decoding of the program's
colour-coded results back to track label numbers.

    DENSESEG_BUILD=build-host python3 tools/evaluation/test_programs.py

Exits with 77 (skipped, for ctest) when numpy is not installed or the build
folder lacks denseseg, dump_seeds or dump_costs.
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
from evaluation import generate, peers, pnm, run  # noqa: E402

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


class CostsTest(unittest.TestCase):
    def dump(self, folder: Path, config_lines: list[str], frame: int = 0):
        config = folder / "c.cfg"
        config.write_text("\n".join(config_lines) + "\n")
        return peers.dump_costs(TOOLS, config, folder / "tracks.dat", frame, folder / "f.ppm", folder / "c.npy")

    def test_seed_term_by_hand_and_file_layout(self):
        w, h = 5, 4
        with tempfile.TemporaryDirectory() as d:
            folder = Path(d)
            pnm.write(folder / "f.ppm", np.random.default_rng(1).integers(0, 256, (h, w, 3), dtype=np.uint8))
            tracks = [
                generate.Track(42, [(1.5, 2.2, 0), (3.0, 3.0, 1)]),
                generate.Track(7, [(4.9, 0.5, 0), (2.9, 3.1, 0)]),
                generate.Track(42, [(3.5, 0.7, 0)]),
                generate.Track(9, [(2.2, 3.9, 0)]),  # the same pixel as the point before: the later one wins
            ]
            generate.write_tracks(folder / "tracks.dat", 2, tracks)
            # The original keys only: the seed term.
            fc = self.dump(folder, ["f lambda 100", "i maxiter 10"])
            raw = (folder / "c.npy").read_bytes()
            empty = self.dump(folder, ["f lambda 100"], frame=2)  # past the file's frames
        self.assertEqual(fc.label_ids, [42, 7, 9])  # in the order first met
        self.assertGreaterEqual(fc.seconds, 0.0)
        # Index k costs 0 at its own seeds and 1 at the other labels' seeds.
        seeded = {(2, 1): 0, (0, 4): 1, (3, 2): 2, (0, 3): 0}  # (row, column): index
        expected = np.zeros((3, h, w), dtype=np.float32)
        for (y, x), k in seeded.items():
            expected[:, y, x] = 1.0
            expected[k, y, x] = 0.0
        self.assertEqual(fc.costs.dtype, np.float32)
        np.testing.assert_array_equal(fc.costs, expected)
        # Version 1.0, a header padded to 64 bytes, then the L x H x W floats in C order.
        self.assertEqual(raw[:8], b"\x93NUMPY\x01\x00")
        length = int.from_bytes(raw[8:10], "little")
        self.assertEqual((10 + length) % 64, 0)
        self.assertIn(b"'shape': (3, 4, 5)", raw[10:10 + length])
        np.testing.assert_array_equal(np.frombuffer(raw[10 + length:], dtype="<f4").reshape(3, h, w), expected)
        self.assertEqual((empty.costs.shape, empty.label_ids, empty.seconds), ((0, h, w), [], 0.0))

    def test_recommended_term_reaches_every_pixel(self):
        w, h = 24, 16
        image = np.zeros((h, w, 3), dtype=np.uint8)
        image[:, 12:] = 200
        with tempfile.TemporaryDirectory() as d:
            folder = Path(d)
            pnm.write(folder / "f.ppm", image)
            # A few seeds per half, so that the seed check keeps them.
            generate.write_tracks(folder / "tracks.dat", 1,
                                  [generate.Track(label, [(x, y + 0.5, 0)])
                                   for y in range(2, 14, 3) for label, x in ((3, 4.5), (5, 19.5))])
            lines = run.recommended_mode(Path(__file__).resolve().parents[2]).lines
            fc = self.dump(folder, lines)
        self.assertEqual(fc.label_ids, [3, 5])
        # Unseeded pixels get costs from the image: each half is cheapest for
        # the label seeded in it; costs stay within the seed term's 1 plus the
        # walker term's and the colour term's weights (a probability the
        # solver's tolerance takes a little past 1 costs a little below 0).
        weight = {l.split()[1]: float(l.split()[2]) for l in lines if l.startswith("f ")}
        np.testing.assert_array_equal(np.argmin(fc.costs, axis=0), (np.arange(w) >= 12)[None, :].repeat(h, 0))
        self.assertLessEqual(float(fc.costs.max()), 1.0 + weight["dataWeight"] + weight["colourWeight"])
        self.assertGreater(float(fc.costs.min()), -0.01)


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
