"""Checks of the peer methods: the graph cut's edge weights on a tiny image,
each peer on a frame whose answer is known, and how a peer's label indices and
times reach the table.

    python3 tools/evaluation/test_peers.py

Exits with 77 (skipped, for ctest) when numpy is not installed; the checks of
a peer skip themselves when its package is missing.
"""

import sys
import tempfile
import unittest
from pathlib import Path

try:
    import numpy as np
except ImportError:
    print("numpy is not installed: checks of the peers skipped")
    sys.exit(77)

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from evaluation import peers, pnm  # noqa: E402


def grey(values) -> np.ndarray:
    v = np.asarray(values, dtype=np.float64)
    return np.repeat(v[:, :, None], 3, axis=2)


def two_halves(h=10, w=12, noisy=(4, 2)) -> np.ndarray:
    """Costs of two labels: 0 is free on the left half, 1 on the right, except
    one pixel of the left half that prefers label 1."""
    costs = np.zeros((2, h, w), dtype=np.float32)
    costs[1, :, :w // 2] = 1.0
    costs[0, :, w // 2:] = 1.0
    costs[:, noisy[0], noisy[1]] = (1.0, 0.0)
    return costs


def halves_truth(h=10, w=12) -> np.ndarray:
    return (np.arange(w) >= w // 2)[None, :].repeat(h, 0).astype(np.int32)


class EdgeWeightTest(unittest.TestCase):
    def test_weights_by_hand(self):
        # One bright pixel at (0, 2): |dI|^2 = 3 * 10^2 = 300 on the three
        # edges that touch it, 0 on the other eight, so b = 11 / (2 * 900).
        image = grey([[0, 0, 10], [0, 0, 0]])
        v, h, dr, dl = peers.graph_cut_edge_weights(image, 2.0)
        e = np.exp(-300 * 11 / 1800)
        d = 2.0 / np.sqrt(2)
        np.testing.assert_allclose(v, [[2, 2, 2 * e]])
        np.testing.assert_allclose(h, [[2, 2 * e], [2, 2]])
        np.testing.assert_allclose(dr, [[d, d]])
        np.testing.assert_allclose(dl, [[d, d * e]])  # (0, 2)-(1, 1) is the second

    def test_scale_of_the_colours_does_not_matter_and_a_flat_frame_has_full_weights(self):
        image = np.random.default_rng(3).integers(0, 256, (7, 9, 3)).astype(np.float64)
        for a, b in zip(peers.graph_cut_edge_weights(image, 0.7), peers.graph_cut_edge_weights(image / 255, 0.7)):
            np.testing.assert_allclose(a, b)
        v, h, dr, dl = peers.graph_cut_edge_weights(np.full((3, 4, 3), 90.0), 0.5)
        self.assertTrue((v == 0.5).all() and (h == 0.5).all())
        np.testing.assert_allclose(np.concatenate([dr, dl]), 0.5 / np.sqrt(2))


@unittest.skipUnless(peers.have_peer(peers.GRAPH_CUT), "gco-wrapper is not installed")
class GraphCutTest(unittest.TestCase):
    def test_pairwise_weight_against_a_lone_pixel(self):
        costs, image = two_halves(), np.full((10, 12, 3), 128, dtype=np.uint8)
        # Weight 1: the lone pixel's 8 cut edges (about 6.8) cost more than its
        # unary saving (1), so it joins its half.
        np.testing.assert_array_equal(peers.graph_cut(costs, image, 1.0), halves_truth())
        # Weight 0.05: its edges cost 0.34, and it keeps its own label.
        expected = halves_truth()
        expected[4, 2] = 1
        np.testing.assert_array_equal(peers.graph_cut(costs, image, 0.05), expected)

    def test_one_label(self):
        self.assertEqual(peers.graph_cut(np.zeros((1, 3, 4), np.float32), np.zeros((3, 4, 3))).tolist(),
                         [[0] * 4] * 3)


@unittest.skipUnless(peers.have_peer(peers.DENSE_CRF), "pydensecrf2 is not installed")
class DenseCrfTest(unittest.TestCase):
    def test_halves_and_a_lone_pixel(self):
        image = np.zeros((10, 12, 3), dtype=np.uint8)
        image[:, 6:] = 200
        # Pairwise terms strong enough to take the lone pixel into its half.
        strong = peers.CrfParameters(unary_weight=10.0, bilateral_sxy=40.0, bilateral_srgb=10.0,
                                     bilateral_compat=10.0, iterations=5)
        np.testing.assert_array_equal(peers.dense_crf(two_halves(), image, strong), halves_truth())


class RunPeerTest(unittest.TestCase):
    def test_indices_become_label_numbers_and_times_add_up(self):
        with tempfile.TemporaryDirectory() as d:
            folder = Path(d)
            (folder / "frames").mkdir()
            for t in range(2):
                pnm.write(folder / "frames" / f"frame_{t:03d}.ppm", np.zeros((3, 4, 3), dtype=np.uint8))
            costs = [peers.FrameCosts(np.zeros((2, 3, 4), np.float32), [42, 7], 0.5),
                     peers.FrameCosts(np.zeros((0, 3, 4), np.float32), [], 0.0)]  # a frame without seeds
            result = peers.run_peer(folder, costs, lambda c, image: (np.arange(12) % 2).reshape(3, 4))
        np.testing.assert_array_equal(result.predictions[0], [[42, 7, 42, 7]] * 3)
        np.testing.assert_array_equal(result.predictions[1], np.full((3, 4), -1))
        # The data term's seconds count, spread over both frames.
        self.assertGreaterEqual(result.seconds_per_frame, 0.25)
        self.assertLess(result.seconds_per_frame, 0.5)


if __name__ == "__main__":
    unittest.main()
