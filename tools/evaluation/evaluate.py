"""The evaluation: generates the sequences, runs every method on them, scores
the results and prints one table (also written as markdown).

    python3 -m evaluation.evaluate --build <build folder> [--tiny] [--out DIR]
    python3 -m evaluation.evaluate --build <build folder> --sweep

(run from tools/; tools/evaluate.sh does all of it, building first).  --sweep
reruns the sweeps that chose the peers' parameters (see peers.py).
"""

from __future__ import annotations

import argparse
import collections
import dataclasses
import os
import platform
import sys
import time
from pathlib import Path
from typing import Callable

import numpy as np

from . import generate, peers, run, score

WALKER = "random walker"
WALKER_REFINE = "random walker, refine()"
WALKER_GRAPH_CUT = "random walker, graph cuts"


def have_refine() -> bool:
    """Whether the Python package is installed beside the evaluation."""
    try:
        import denseseg  # noqa: F401
    except ImportError:
        return False
    return True


def have_walker() -> bool:
    try:
        import skimage.segmentation  # noqa: F401
    except ImportError:
        return False
    return True


def machine() -> str:
    cpu = platform.processor() or platform.machine()
    try:
        for line in Path("/proc/cpuinfo").read_text().splitlines():
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    except OSError:
        pass
    return f"{cpu}, {os.cpu_count()} cores"


@dataclasses.dataclass
class Method:
    folder: str  # the name --methods takes
    name: str  # the name in the table
    run: Callable[[Path, list], run.RunResult]  # (sequence folder, frame costs or None)
    needs_costs: bool = False


@dataclasses.dataclass
class Tally:
    """Everything the table says about one method on one scene class."""
    frames: list[score.FrameScore] = dataclasses.field(default_factory=list)
    seconds: float = 0.0
    changed: int = 0  # flickering pixels (score.flicker)
    stable: int = 0

    def add(self, result: run.RunResult, truth: np.ndarray) -> list[score.FrameScore]:
        frame_scores = [score.score_frame(p, t) for p, t in zip(result.predictions, truth)]
        self.frames.extend(frame_scores)
        self.seconds += result.seconds_per_frame * len(truth)
        changed, stable = score.flicker(result.predictions, list(truth))
        self.changed += changed
        self.stable += stable
        return frame_scores

    def row(self) -> dict[str, float]:
        return {"miou": float(np.mean([f.miou for f in self.frames])),
                "accuracy": float(np.mean([f.accuracy for f in self.frames])),
                "boundary_f": float(np.mean([f.boundary_f for f in self.frames])),
                "flicker": self.changed / self.stable if self.stable else 0.0,
                "lost": sum(f.labels_lost for f in self.frames),
                "labels": sum(f.labels for f in self.frames),
                "seconds": self.seconds / len(self.frames)}


def pick_plans(tiny: bool, only: list[str] | None) -> tuple[list[generate.SequencePlan], int]:
    plans, frames = generate.tiny_set() if tiny else generate.full_set()
    if only:
        unknown = set(only) - {s.name for s in plans}
        if unknown:
            raise SystemExit(f"unknown sequences {sorted(unknown)}; there are {[s.name for s in plans]}")
        plans = [s for s in plans if s.name in only]
    return plans, frames


def make_methods(tools: run.Tools, modes: list[run.Mode], walker: bool, peer_names: list[str]) -> list[Method]:
    methods = [Method(m.folder, m.name, lambda folder, _, m=m: run.run_program(tools, folder, m)) for m in modes]
    if walker:
        methods.append(Method("walker", WALKER, lambda folder, _: run.run_walker(tools, folder)))
        # The walker's probabilities cleaned up by the package's refine() and,
        # next to it, by the graph cut.
        if have_refine():
            import denseseg

            methods.append(Method("walker-refine", WALKER_REFINE,
                                  lambda folder, _: run.run_walker(tools, folder, denseseg.refine)))
            if peers.have_peer(peers.GRAPH_CUT):
                methods.append(Method("walker-graphcut", WALKER_GRAPH_CUT,
                                      lambda folder, _: run.run_walker(tools, folder, peers.graph_cut_probabilities)))
    for name in peer_names:
        method = peers.peer_method(name)
        methods.append(Method(peers.FOLDERS[name], name,
                              lambda folder, costs, method=method: peers.run_peer(folder, costs, method), True))
    return methods


def generate_sequence(plan: generate.SequencePlan, frames: int, textures: generate.Textures,
                      out: Path) -> tuple[generate.Sequence, Path, np.ndarray]:
    seq = generate.build(plan, frames, textures)
    folder = out / "data" / plan.name
    generate.write_sequence(seq, folder)
    labels = len({0} | {o.label for o in seq.objects})
    print(f"== {plan.name}: {plan.scene_class}, {plan.width}x{plan.height}, {seq.frames} frames, {labels} labels"
          + (", clicks" if plan.clicks else f", {100 * plan.wrong_fraction:g} % wrong tracks"), flush=True)
    return seq, folder, np.load(folder / "truth.npy")


def evaluate(build: Path, out: Path, tiny: bool, walker: bool, only: list[str] | None = None,
             extra_modes: list[run.Mode] | None = None, methods_wanted: list[str] | None = None,
             peer_names: list[str] | None = None) -> str:
    repo = Path(__file__).resolve().parents[2]
    tools = run.Tools(build)
    plans, frames = pick_plans(tiny, only)
    modes = run.default_modes(repo, maxiter=50 if tiny else None) + (extra_modes or [])
    methods = make_methods(tools, modes, walker, peer_names or [])
    if methods_wanted:
        known = [m.folder for m in methods]
        if set(methods_wanted) - set(known):
            raise SystemExit(f"unknown or unavailable methods {sorted(set(methods_wanted) - set(known))}; "
                             f"there are {known}")
        methods = [m for m in methods if m.folder in methods_wanted]
    # The recommended data term, for the peers.
    data_term_mode = run.recommended_mode(repo)
    textures = generate.Textures(use_photos=not tiny)

    tallies: dict[tuple[str, str], Tally] = collections.defaultdict(Tally)
    classes: list[str] = []
    started = time.perf_counter()
    for plan in plans:
        _, folder, truth = generate_sequence(plan, frames, textures, out)
        if plan.scene_class not in classes:
            classes.append(plan.scene_class)
        chosen = [m for m in methods if methods_wanted or plan.methods is None or m.folder in plan.methods]
        costs = peers.data_terms(tools, folder, data_term_mode) if any(m.needs_costs for m in chosen) else None
        for method in chosen:
            result = method.run(folder, costs)
            frame_scores = tallies[(plan.scene_class, method.name)].add(result, truth)
            print(f"   {method.name:28s} mIoU {np.mean([s.miou for s in frame_scores]):.3f}  "
                  f"{result.seconds_per_frame:7.2f} s/frame", flush=True)
    total = time.perf_counter() - started

    names = [m.name for m in methods]
    table, left_out = format_table(classes, names, tallies)
    footer = []
    if any((generate.TIMING_CLASS, m) in tallies for m in names):
        parts = [f"{m} {tallies[(generate.TIMING_CLASS, m)].row()['seconds']:.2f}"
                 for m in names if (generate.TIMING_CLASS, m) in tallies]
        footer.append("640x480 frame, 6 labels, s/frame: " + ", ".join(parts))
    if left_out:
        footer.append("the means are over the classes every method ran; left out: " + ", ".join(
            f"{c} ({', '.join(m for m in names if (c, m) in tallies)})" for c in left_out))
    footer.append(f"machine: {machine()}; methods and scoring took {total:.0f} s")
    footer.append("boundary F: 4-neighbour boundary pixels matched within 2 px (Chebyshev distance); "
                  "flicker: share of the pixels whose true label stays from one frame to the next but whose "
                  "predicted label changes; labels lost: labels of the truth without any predicted pixel in a "
                  "frame, summed over frames / labels summed over frames; "
                  "the program's s/frame is the wall time of its whole-folder run / frames, "
                  "the random walker's the time of its random_walker calls / frames, "
                  "the graph cut's and the dense CRF's that of the recommended data term (dump_costs) "
                  "plus their own calls / frames")
    text = table + "\n\n" + "\n\n".join(footer) + "\n"
    out.mkdir(parents=True, exist_ok=True)
    (out / "table.md").write_text(text)
    return text


def format_table(classes: list[str], methods: list[str], tallies: dict) -> tuple[str, list[str]]:
    """The markdown table, and the classes that the means leave out because
    some method did not run on them."""
    rows = ["| scene class | method | mIoU | pixel accuracy | boundary F (2 px) | flicker (%) | labels lost "
            "| s/frame |",
            "|---|---|---|---|---|---|---|---|"]

    def line(cls: str, m: str, v: dict) -> str:
        return (f"| {cls} | {m} | {v['miou']:.3f} | {v['accuracy']:.3f} | {v['boundary_f']:.3f} | "
                f"{100 * v['flicker']:.3f} | {v['lost']}/{v['labels']} | {v['seconds']:.2f} |")

    for cls in classes:
        for m in methods:
            if (cls, m) in tallies:
                rows.append(line(cls, m, tallies[(cls, m)].row()))
    common = [c for c in classes if all((c, m) in tallies for m in methods)]
    for m in methods:
        per_class = [tallies[(c, m)].row() for c in common]
        if not per_class:
            continue
        mean = {k: float(np.mean([r[k] for r in per_class])) for k in ("miou", "accuracy", "boundary_f", "flicker",
                                                                       "seconds")}
        mean["lost"] = sum(r["lost"] for r in per_class)
        mean["labels"] = sum(r["labels"] for r in per_class)
        rows.append(line("**mean over all classes**", m, mean))
    return "\n".join(rows), [c for c in classes if c not in common]


def sweep(build: Path, out: Path, tiny: bool, only: list[str] | None, peer_names: list[str]) -> str:
    """Runs each peer with every parameter value of its sweep on the sequences
    the peers run on (the long one is left out) and prints, per value, the
    means over all classes; the peers' fixed parameters in peers.py were chosen
    this way, by the mean mIoU."""
    repo = Path(__file__).resolve().parents[2]
    tools = run.Tools(build)
    plans, frames = pick_plans(tiny, only)
    plans = [p for p in plans if p.methods is None]
    textures = generate.Textures(use_photos=not tiny)
    data_term_mode = run.recommended_mode(repo)
    sequences = []
    for plan in plans:
        _, folder, truth = generate_sequence(plan, frames, textures, out)
        sequences.append((plan.scene_class, folder, truth, peers.data_terms(tools, folder, data_term_mode)))
    grids = {peers.GRAPH_CUT: [(f"weight {g:g}", lambda c, i, g=g: peers.graph_cut(c, i, g))
                               for g in peers.GRAPH_CUT_SWEEP],
             peers.DENSE_CRF: [(f"unary x{p.unary_weight:g}, bilateral sxy {p.bilateral_sxy:g} "
                                f"srgb {p.bilateral_srgb:g} compat {p.bilateral_compat:g}",
                                lambda c, i, p=p: peers.dense_crf(c, i, p)) for p in peers.CRF_SWEEP]}
    rows = ["| peer | parameters | mean mIoU | mean pixel accuracy | mean boundary F | mean s/frame |",
            "|---|---|---|---|---|---|"]
    for name in peer_names:
        best = None
        for label, method in grids[name]:
            tallies: dict[str, Tally] = collections.defaultdict(Tally)
            for cls, folder, truth, costs in sequences:
                tallies[cls].add(peers.run_peer(folder, costs, method), truth)
            values = [t.row() for t in tallies.values()]
            mean = {k: float(np.mean([v[k] for v in values])) for k in ("miou", "accuracy", "boundary_f", "seconds")}
            rows.append(f"| {name} | {label} | {mean['miou']:.4f} | {mean['accuracy']:.3f} | "
                        f"{mean['boundary_f']:.3f} | {mean['seconds']:.2f} |")
            print(rows[-1], flush=True)
            if best is None or mean["miou"] > best[1]:
                best = (label, mean["miou"])
        rows.append(f"| {name} | **best: {best[0]}** | {best[1]:.4f} | | | |")
    text = "\n".join(rows) + f"\n\nmachine: {machine()}; classes: {', '.join(dict.fromkeys(p.scene_class for p in plans))}\n"
    out.mkdir(parents=True, exist_ok=True)
    (out / "sweep.md").write_text(text)
    return text


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=Path, required=True,
                        help="build folder with src/denseseg, tools/dump_seeds and tools/dump_costs")
    parser.add_argument("--out", type=Path, default=None, help="output folder (eval-out/ or eval-out-tiny/)")
    parser.add_argument("--tiny", action="store_true", help="three small sequences, 2 frames, 50 iterations")
    parser.add_argument("--sequences", default="", help="comma-separated names of the sequences to run (default all)")
    parser.add_argument("--mode", action="append", default=[], metavar="NAME=FILE",
                        help="one more mode of the program: configuration lines from FILE, without folder keys "
                             "(may be given more than once)")
    parser.add_argument("--no-walker", action="store_true", help="leave the random walker out")
    parser.add_argument("--no-peers", action="store_true", help="leave the graph cut and the dense CRF out")
    parser.add_argument("--methods", default="",
                        help="comma-separated methods to run, by result folder name: definition, "
                             "definition-lambda10, recommended, frame-by-frame, the names of --mode, walker, graphcut, "
                             "densecrf; they then run on every sequence (default: all of them, but only "
                             "recommended, frame-by-frame and walker on the long sequence)")
    parser.add_argument("--sweep", action="store_true",
                        help="instead of the table, run each peer (or those --methods names) with every value of "
                             "its parameter sweep and print the means over all classes (written to sweep.md)")
    args = parser.parse_args(argv)
    extra = []
    for item in args.mode:
        name, sep, file = item.partition("=")
        if not sep or not name:
            parser.error(f"--mode takes NAME=FILE, got {item!r}")
        extra.append(run.mode_from_file(name, Path(file)))
    out = args.out or Path("eval-out-tiny" if args.tiny else "eval-out")
    walker = not args.no_walker and have_walker()
    if not walker and not args.no_walker:
        print("scikit-image is not installed: the random walker is left out", file=sys.stderr)
    peer_names = []
    for name in ([] if args.no_peers else [peers.GRAPH_CUT, peers.DENSE_CRF]):
        if peers.have_peer(name):
            peer_names.append(name)
        else:
            print(f"{peers.MODULES[name]} is not installed: the {name} peer is left out", file=sys.stderr)
    only = [n for n in args.sequences.split(",") if n]
    wanted = [n for n in args.methods.split(",") if n]
    if args.sweep:
        if wanted:
            peer_names = [n for n in peer_names if peers.FOLDERS[n] in wanted]
        print(sweep(args.build.resolve(), out.resolve(), args.tiny, only, peer_names))
    else:
        print(evaluate(args.build.resolve(), out.resolve(), args.tiny, walker, only, extra, wanted, peer_names))
    return 0


if __name__ == "__main__":
    sys.exit(main())
