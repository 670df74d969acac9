"""The faults. Each module adds its own to `cases`, in the order of the table."""

import dataclasses
from collections.abc import Callable


@dataclasses.dataclass(frozen=True)
class Case:
    name: str
    text: str
    needs: tuple
    often: int  # how often, beside the others
    inject: Callable


cases = []


def case(text, needs=(), often=1):
    """Makes a case of a function that brings a scene to its fault; the scene does the rest."""
    def register(function):
        cases.append(Case(function.__name__.replace("_", " "), text, needs, often, function))
        return function
    return register


from cases import (processes, system_calls, space, hostile, names, clock, log,  # noqa: E402,F401
                   supervisor, rings, instructions)  # noqa: E402,F401
