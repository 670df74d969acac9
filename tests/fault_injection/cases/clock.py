"""The wall clock stepped, forwards or backwards, at a random instant, for one side or both."""

import mmap
import struct

from cases import case

STEPS = [1, 2, 10, 3600, 86400, 366 * 86400]


@case("the clock of the server stepped")
def server_clock_stepped(scene):
    step = step_of_clock(scene)
    scene.serve(environment=stepped_clock(scene))
    scene.send()
    step()


@case("the clock of the producers stepped")
def producer_clock_stepped(scene):
    step = step_of_clock(scene)
    scene.serve()
    scene.send(environment=stepped_clock(scene))
    step()


@case("the clocks of the server and the producers stepped")
def clock_stepped(scene):
    step = step_of_clock(scene)
    scene.serve(environment=stepped_clock(scene))
    scene.send(environment=stepped_clock(scene))
    step()


def stepped_clock(scene):
    return {"LD_PRELOAD": str(scene.binaries / "stepped_clock.so"),
            "STEPPED_CLOCK": str(scene.folder / "clock")}


def step_of_clock(scene):
    """Sets the clock right; what it returns steps it."""
    path = scene.folder / "clock"
    path.write_bytes(bytes(8))

    def step():
        seconds = scene.rng.choice(STEPS) * scene.rng.choice([-1, 1])
        scene.until_an_instant()
        with open(path, "r+b") as file, mmap.mmap(file.fileno(), 8) as clock:
            clock[:] = struct.pack("=q", seconds)
    return step
