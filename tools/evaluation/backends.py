"""Runs the program on the evaluation's sequences (and the demo) once on each
backend and counts, per frame, the pixels whose dense label differs.

    python3 tools/evaluation/backends.py --build build [--sequences a,b] [--out DIR]

Needs a CUDA build and a GPU. Models 0, 1, 3 and 4 and the recommended modes
must agree on at least 99.9 % of every frame's pixels; model 2, whose tiles
the GPU may take in any order, on at least 99 %. Prints one line per mode and
sequence and exits with status 1 when a frame falls short.
"""

from __future__ import annotations

import argparse
import os
import shutil
import subprocess
import sys
from pathlib import Path

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from evaluation import evaluate, generate, run  # noqa: E402

REPO = Path(__file__).resolve().parents[2]


def modes() -> list[tuple[run.Mode, float]]:
    """Each mode with the share of pixels both backends must agree on."""
    out = []
    for model in range(5):
        lines = ["f lambda 100", "i maxiter 500", f"i model {model}"]
        out.append((run.Mode(f"model {model}", f"model{model}", lines), 0.99 if model == 2 else 0.999))
    out.append((run.recommended_mode(REPO), 0.999))
    out.append((run.frame_by_frame_mode(REPO), 0.999))
    return out


def on_backend(tools: run.Tools, folder: Path, mode: run.Mode, backend: str) -> run.RunResult:
    os.environ["VELA_DEVICE"] = backend
    named = run.Mode(mode.name, f"{mode.folder}-{backend}", mode.lines)
    return run.run_program(tools, folder, named)


def compare(tools: run.Tools, folder: Path, mode: run.Mode, needed: float) -> tuple[str, bool]:
    host = on_backend(tools, folder, mode, "host")
    cuda = on_backend(tools, folder, mode, os.environ.get("BACKENDS_AGAINST", "cuda"))
    worst, differing, pixels = 1.0, 0, 0
    for a, b in zip(host.predictions, cuda.predictions):
        diff = int(np.count_nonzero(a != b))
        differing += diff
        pixels += a.size
        worst = min(worst, 1.0 - diff / a.size)
    ok = worst >= needed
    line = (f"{mode.name:24s} {folder.name:14s} frames {len(host.predictions):3d}  differing px {differing:7d} "
            f"of {pixels:9d}  worst frame {100 * worst:8.4f} %  s/frame host {host.seconds_per_frame:6.3f} "
            f"cuda {cuda.seconds_per_frame:6.3f}  {'ok' if ok else 'SHORT'}")
    return line, ok


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--out", type=Path, default=Path("backends-out"))
    parser.add_argument("--sequences", default="", help="comma-separated sequence names (default all)")
    parser.add_argument("--modes", default="", help="comma-separated result folder names of the modes to compare "
                        "(model0 to model4, recommended, frame-by-frame; default all)")
    parser.add_argument("--only-data", action="store_true", help="write the sequences into OUT/data/ and stop")
    args = parser.parse_args(argv)
    tools = run.Tools(args.build.resolve())
    out = args.out.resolve()
    out.mkdir(parents=True, exist_ok=True)
    plans, frames = evaluate.pick_plans(False, [n for n in args.sequences.split(",") if n])
    textures = generate.Textures(use_photos=True)
    folders = [evaluate.generate_sequence(plan, frames, textures, out)[1] for plan in plans]
    if args.only_data:
        return 0
    # The demo, made by its generator, has the sequences' layout.
    make_demo = args.build.resolve() / "tools" / "make_demo"
    shutil.rmtree(out / "demo", ignore_errors=True)
    subprocess.run([str(make_demo), str(out / "demo")], check=True, capture_output=True)
    folders.append(out / "demo")
    all_ok = True
    wanted = [m for m in args.modes.split(",") if m]
    for mode, needed in modes():
        if wanted and mode.folder not in wanted:
            continue
        for folder in folders:
            # The long sequence for the modes a user runs on a video only.
            if folder.name == "long" and not mode.folder.startswith(("recommended", "frame-by-frame")):
                continue
            line, ok = compare(tools, folder, mode, needed)
            print(line, flush=True)
            all_ok = all_ok and ok
    return 0 if all_ok else 1


if __name__ == "__main__":
    sys.exit(main())
