"""The evaluation: generates the sequences, runs every method on them, scores
the results and prints one table (also written as markdown).

    python3 -m evaluation.evaluate --build <build folder> [--tiny] [--out DIR]

(run from tools/; tools/evaluate.sh does all of it, building first).
"""

from __future__ import annotations

import argparse
import collections
import os
import platform
import sys
import time
from pathlib import Path

import numpy as np

from . import generate, run, score

WALKER = "random walker"


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


def evaluate(build: Path, out: Path, tiny: bool, walker: bool, only: list[str] | None = None,
             extra_modes: list[run.Mode] | None = None, methods_wanted: list[str] | None = None) -> str:
    repo = Path(__file__).resolve().parents[2]
    tools = run.Tools(build)
    plans, frames = generate.tiny_set() if tiny else generate.full_set()
    if only:
        unknown = set(only) - {s.name for s in plans}
        if unknown:
            raise SystemExit(f"unknown sequences {sorted(unknown)}; there are {[s.name for s in plans]}")
        plans = [s for s in plans if s.name in only]
    modes = run.default_modes(repo, maxiter=50 if tiny else None) + (extra_modes or [])
    if methods_wanted:
        known = [m.folder for m in modes] + ["walker"]
        if set(methods_wanted) - set(known):
            raise SystemExit(f"unknown methods {sorted(set(methods_wanted) - set(known))}; there are {known}")
        modes = [m for m in modes if m.folder in methods_wanted]
        walker = walker and "walker" in methods_wanted
    methods = [m.name for m in modes] + ([WALKER] if walker else [])
    textures = generate.Textures(use_photos=not tiny)

    # (class, method) -> frame scores, and -> [seconds, frames]
    scores: dict[tuple[str, str], list[score.FrameScore]] = collections.defaultdict(list)
    timing: dict[tuple[str, str], list[float]] = collections.defaultdict(lambda: [0.0, 0])
    classes: list[str] = []
    started = time.perf_counter()
    for plan in plans:
        seq = generate.build(plan, frames, textures)
        folder = out / "data" / plan.name
        generate.write_sequence(seq, folder)
        truth = np.load(folder / "truth.npy")
        if plan.scene_class not in classes:
            classes.append(plan.scene_class)
        labels = len({0} | {o.label for o in seq.objects})
        print(f"== {plan.name}: {plan.scene_class}, {plan.width}x{plan.height}, {frames} frames, {labels} labels",
              flush=True)
        runs = [(m.name, lambda m=m: run.run_program(tools, folder, m)) for m in modes]
        if walker:
            runs.append((WALKER, lambda: run.run_walker(tools, folder)))
        for name, go in runs:
            result = go()
            frame_scores = [score.score_frame(p, t) for p, t in zip(result.predictions, truth)]
            scores[(plan.scene_class, name)].extend(frame_scores)
            timing[(plan.scene_class, name)][0] += result.seconds_per_frame * frames
            timing[(plan.scene_class, name)][1] += frames
            print(f"   {name:28s} mIoU {np.mean([s.miou for s in frame_scores]):.3f}  "
                  f"{result.seconds_per_frame:7.2f} s/frame", flush=True)
    total = time.perf_counter() - started

    table = format_table(classes, methods, scores, timing)
    timing_line = ""
    if generate.TIMING_CLASS in classes:
        parts = [f"{m} {timing[(generate.TIMING_CLASS, m)][0] / timing[(generate.TIMING_CLASS, m)][1]:.2f}"
                 for m in methods]
        timing_line = "640x480 frame, 6 labels, s/frame: " + ", ".join(parts)
    footer = [timing_line] if timing_line else []
    footer.append(f"machine: {machine()}; methods and scoring took {total:.0f} s")
    footer.append("boundary F: 4-neighbour boundary pixels matched within 2 px (Chebyshev distance); "
                  "the program's s/frame is the wall time of its whole-folder run / frames, "
                  "the random walker's the time of its random_walker calls / frames")
    text = table + "\n\n" + "\n\n".join(footer) + "\n"
    out.mkdir(parents=True, exist_ok=True)
    (out / "table.md").write_text(text)
    return text


def format_table(classes, methods, scores, timing) -> str:
    rows = ["| scene class | method | mIoU | pixel accuracy | boundary F (2 px) | s/frame |",
            "|---|---|---|---|---|---|"]
    means = collections.defaultdict(list)
    for cls in classes:
        for m in methods:
            s = scores[(cls, m)]
            values = (np.mean([x.miou for x in s]), np.mean([x.accuracy for x in s]),
                      np.mean([x.boundary_f for x in s]), timing[(cls, m)][0] / timing[(cls, m)][1])
            means[m].append(values)
            rows.append(f"| {cls} | {m} | {values[0]:.3f} | {values[1]:.3f} | {values[2]:.3f} | {values[3]:.2f} |")
    for m in methods:
        v = np.mean(means[m], axis=0)
        rows.append(f"| **mean over all classes** | {m} | {v[0]:.3f} | {v[1]:.3f} | {v[2]:.3f} | {v[3]:.2f} |")
    return "\n".join(rows)


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=Path, required=True, help="build folder with src/denseseg and tools/dump_seeds")
    parser.add_argument("--out", type=Path, default=None, help="output folder (eval-out/ or eval-out-tiny/)")
    parser.add_argument("--tiny", action="store_true", help="two small sequences, 2 frames, 50 iterations")
    parser.add_argument("--sequences", default="", help="comma-separated names of the sequences to run (default all)")
    parser.add_argument("--mode", action="append", default=[], metavar="NAME=FILE",
                        help="one more mode of the program: configuration lines from FILE, without folder keys "
                             "(may be given more than once)")
    parser.add_argument("--no-walker", action="store_true", help="leave the random walker out")
    parser.add_argument("--methods", default="",
                        help="comma-separated methods to run, by result folder name: definition, "
                             "definition-lambda10, recommended, the names of --mode, walker (default all)")
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
    only = [n for n in args.sequences.split(",") if n]
    wanted = [n for n in args.methods.split(",") if n]
    print(evaluate(args.build.resolve(), out.resolve(), args.tiny, walker, only, extra, wanted))
    return 0


if __name__ == "__main__":
    sys.exit(main())
