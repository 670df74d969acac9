"""What some faults need of the machine: rights and other people's tools."""

import functools
import subprocess
import sys

# As with a worker: no child of the tracer, and not readable for other processes of its user.
TRACES_PARENT = """
import ctypes, os, sys
libc = ctypes.CDLL(None)
PR_SET_DUMPABLE, PTRACE_SEIZE = 4, 0x4206
libc.prctl(PR_SET_DUMPABLE, 0, 0, 0, 0)
child = os.fork()
if child == 0:
    os._exit(libc.ptrace(PTRACE_SEIZE, os.getppid(), None, None) != 0)
sys.exit(os.waitpid(child, 0)[1] != 0)
"""


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
    if need == "ptrace":
        traced = works(sys.executable, "-c", TRACES_PARENT)
        return "" if traced else "this user may not trace a process that is confined"
    if need == "mounts":
        return "" if unshare() else "neither root nor a user namespace may mount"
    raise ValueError(need)
