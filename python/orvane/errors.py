"""What the package raises."""
import enum


class Certainty(enum.Enum):
    """What is certain about a stream whose call has failed."""

    STORED = 0
    """All of it is stored; only the receipt is lost."""
    NOT_STORED = 1
    """The store does not have all of it as a closed stream."""
    UNKNOWN = 2
    """finish() was called, and the server has not said what it has stored."""


class Error(Exception):
    """A failure with a status of the library or of the server, and a message for people."""

    def __init__(self, status: int, message: str,
                 certainty: Certainty = Certainty.NOT_STORED) -> None:
        super().__init__(message)
        self.status = status
        self.message = message
        self.certainty = certainty


class Timeout(Error):
    """The call took longer than the stream's timeout. The stream is as before, and the call may be made
    again: a write() with the rest, from byte `taken` on."""

    def __init__(self, status: int, message: str, certainty: Certainty = Certainty.NOT_STORED,
                 taken: int = 0) -> None:
        super().__init__(status, message, certainty)
        self.taken = taken


class Damaged(Exception):
    """What is stored is not what its manifest says, or has a form that this release cannot read."""
