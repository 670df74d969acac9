"""What some faults need of the machine: rights and other people's tools."""

import functools
import subprocess


def works(*command):
    try:
        return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, check=False).returncode == 0
    except FileNotFoundError:
        return False


@functools.cache
def unshare():
    """The command that gives a process its own mounts: as root, or in a user namespace."""
    mount = ["sh", "-c", "mount -t tmpfs none /dev/shm"]
    for command in (["unshare", "-m"], ["unshare", "-rm"]):
        if works(*command, *mount):
            return command
    return []


@functools.cache
def missing(need):
    """Why this machine cannot provide it; empty when it can."""
    if need == "strace":
        traced = works("strace", "-D", "-f", "-o", "/dev/null", "-e",
                       "inject=openat:error=ENOENT:when=1000", "true")
        return "" if traced else "strace is not there, or may not trace"
    if need == "mounts":
        return "" if unshare() else "neither root nor a user namespace may mount"
    raise ValueError(need)
