"""Death at, or failure of, the n-th system call of a kind, by strace."""

from cases import case
from cases.processes import EVERYBODY
from stored import FOLDER

# The calls of interest, and about how often a process makes each in a case.
PRODUCER_CALLS = {"execve": 1, "openat": 60, "munmap": 5, "read": 60, "write": 1, "ppoll": 100,
                  "newfstatat": 100, "rt_sigaction": 3, "connect": 1, "recvfrom": 3, "sendto": 1,
                  "close": 18, "exit_group": 1}
SERVER_CALLS = {"openat": 100, "mmap": 30, "munmap": 3, "ftruncate": 3, "fallocate": 2, "link": 2,
                "unlink": 4, "rename": 24, "write": 90, "fdatasync": 60, "fsync": 40, "mkdir": 2,
                "fchmod": 2, "close": 60, "ppoll": 60, "lseek": 20, "clone": 2, "accept4": 6,
                "listen": 1, "recvfrom": 4, "sendto": 3, "wait4": 5, "exit_group": 1}
STORE_CALLS = {"openat": ("EACCES", "EMFILE", "ENOSPC"), "write": ("ENOSPC", "EIO"),
               "fdatasync": ("EIO", "ENOSPC"), "fsync": ("EIO",), "rename": ("EIO", "ENOSPC"),
               "mkdir": ("ENOSPC", "EACCES"), "close": ("EIO",)}


@case("SIGKILL to one `orvane send` at its n-th system call of a kind", needs=("strace",), often=4)
def producer_dies_in_call(scene):
    scene.serve()
    victim = scene.send(may_fail=1, prefix=dying(scene, PRODUCER_CALLS))[0]
    victim.killed = True
    victim.wait()
    if victim.process.returncode < 0:
        scene.note_moment()


@case("SIGKILL to a process of the server at its n-th system call of a kind", needs=("strace",),
      often=4)
def server_dies_in_call(scene):
    calls = SERVER_CALLS | ({"unlinkat": 3} if scene.compression else {})  # removes plain files
    server = scene.start_server(dying(scene, calls), is_ready=scene.has_names)
    server.trace = scene.folder / "trace"
    server.killed = True
    if server.wait_until_ready():
        scene.send(may_fail=EVERYBODY)
    scene.undo = lambda: (note_moment(scene, "killed by SIGKILL"), scene.end_if_running(server))


@case("a system call of the server that fails, once or from then on", needs=("strace",), often=4)
def server_call_fails(scene):
    call = scene.rng.choice(list(STORE_CALLS))
    error = scene.rng.choice(STORE_CALLS[call])
    when = f"{which(scene, SERVER_CALLS[call])}{scene.rng.choice(['', '+', '+7'])}"
    server = scene.start_server(strace(scene, call, f"error={error}:when={when}"),
                                is_ready=scene.has_names)
    server.may_give_up = scene.needs_recovery = True
    server.trace = scene.folder / "trace"
    if server.wait_until_ready():
        scene.send(may_fail=EVERYBODY)
    scene.undo = lambda: (note_moment(scene, "(INJECTED)"), scene.end_if_running(server))


def dying(scene, calls):
    call = scene.rng.choice(list(calls))
    return strace(scene, call, f"signal=KILL:when={which(scene, calls[call])}")


def which(scene, most):
    """Small numbers more often: they are reached more surely."""
    return int(most ** scene.rng.random())


def strace(scene, call, injection):
    """The tracer is no parent of the program, which so keeps its process number and its end."""
    return ["strace", "-D", "-f", "-qq", "-o", scene.folder / "trace", "-e",
            f"trace={call},mkdir,rename", "-e", f"inject={call}:{injection}"]


def note_moment(scene, mark):
    """When the fault came, by what the trace has before it."""
    begun = ended = 0
    for line in (scene.folder / "trace").read_text(errors="replace").splitlines():
        if mark in line:
            scene.moment = "during" if begun > ended else "after" if begun else "before"
            return
        begun += "mkdir(" in line and FOLDER.search(line) is not None
        ended += "/manifest\")" in line
