"""Injects faults into the real programs, checks what must hold, and prints what came of it.

Every random choice of a case follows from its number and the seed: --case repeats one. How the
operating system orders the processes does not, so a rare failure may need a few repetitions.
"""

import argparse
import concurrent.futures
import contextlib
import gc
import os
import shutil
import signal
import sys
import tempfile
import threading
import time
import traceback
from pathlib import Path

import invariants
import machine
import table
from cases import cases
from programs import Broken, Interrupted, interrupted
from scene import Scene

ORDER = [case for case in cases for _ in range(case.often)]


class Result:
    def __init__(self, number):
        self.number = number
        self.case = ORDER[number % len(ORDER)]
        self.not_run = next(filter(None, map(machine.missing, self.case.needs)), "")
        self.way = ""
        self.moment = ""
        self.outcomes = []
        self.failure = ""


def run_case(number, options, folder):
    """Runs one case in its own folder, which stays when the case fails."""
    result = Result(number)
    if interrupted.is_set():
        raise Interrupted
    if result.not_run:
        return result
    folder = folder / str(number)
    folder.mkdir()
    scene = Scene(options.seed, number, options.programs, folder, options.compress)
    try:
        result.case.inject(scene)
        scene.finish()
        invariants.check_store(scene)
        result.outcomes = scene.outcomes
    except Broken as broken:
        result.failure = str(broken)
    except Interrupted:
        raise
    except Exception:  # a fault of the harness itself, which is reported as such
        result.failure = traceback.format_exc()
    finally:
        if result.failure:
            scene.keep_store()
        scene.clear_away()
        if not result.failure:
            shutil.rmtree(folder)
    result.way, result.moment = scene.way, scene.moment
    return result


def run_all(numbers, options, folder):
    results = []
    lock = threading.Lock()

    def run(number):
        result = run_case(number, options, folder)
        gc.collect()  # a scene and its actions refer to each other, and have all that was sent
        with lock:
            results.append(result)
            if result.failure:
                print(table.failure(result, options, folder), flush=True)
            elif sys.stderr.isatty():
                print(f"\r{len(results)} of {len(numbers)}", end="\r", file=sys.stderr)

    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for done in [pool.submit(run, number) for number in numbers]:
            with contextlib.suppress(Interrupted):
                done.result()
    return results


def parse_options():
    parser = argparse.ArgumentParser(prog="./dev faults", description=__doc__.splitlines()[0])
    parser.add_argument("count", nargs="?", type=int, default=1000, metavar="COUNT",
                        help="how many faults (1000)")
    parser.add_argument("seed", nargs="?", default=str(int(time.time())), metavar="SEED",
                        help="any text; without it, the time")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="cases side by side")
    parser.add_argument("--case", type=int, metavar="NUMBER", help="run this one alone")
    parser.add_argument("--compress", metavar="METHOD",
                        help="give every server this option; some of what is sent shrinks then")
    parser.add_argument("--only", metavar="NAME", help="only the kinds with this in their name")
    parser.add_argument("--require-all", action="store_true", default="CI" in os.environ,
                        help="fail when a case cannot be run here; so it is with CI set")
    parser.add_argument("--programs", type=Path, required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def numbers_of(options):
    if options.case is not None:
        return [options.case]
    wanted = (number for number in range(options.count * len(ORDER))
              if not options.only or options.only in ORDER[number % len(ORDER)].name)
    return [number for _, number in zip(range(options.count), wanted)]


def main():
    options = parse_options()
    options.programs = options.programs.resolve()
    numbers = numbers_of(options)
    if not numbers:
        sys.exit(f"./dev faults: no kind of fault has '{options.only}' in its name")
    folder = Path(tempfile.mkdtemp(prefix="orvane-faults-"))
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: interrupted.set())
    start = time.monotonic()
    results = run_all(numbers, options, folder)
    failed = any(result.failure for result in results)
    if not failed:
        shutil.rmtree(folder)
    table.show(results, options, time.monotonic() - start)
    left_out = any(result.not_run for result in results)
    if interrupted.is_set():
        print(f"interrupted before {len(numbers) - len(results)} more")
    return 1 if failed or interrupted.is_set() or (left_out and options.require_all) else 0


if __name__ == "__main__":
    sys.exit(main())
