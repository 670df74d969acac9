"""A copy of the tree, built for the tests, in which one file at a time is broken."""
import collections
import filecmp
import os
import re
import shutil
import subprocess
import time
from pathlib import Path

# Own queues, own processes and own temporary files for each run: whatever a broken program leaves
# behind is gone with the run, and two runs never meet. The shell stays, to be the namespace's process 1.
SANDBOX = 'mount -t tmpfs tmpfs /dev/shm && mount -t tmpfs tmpfs "$TMPDIR" && "$@"; exit $?'
NAMESPACES = ["unshare", "--mount", "--ipc", "--net", "--pid", "--fork", "--kill-child", "--mount-proc"]

SHORTEST_TIMEOUT = 15  # seconds

# Tests that take longer than this, in milliseconds, mostly wait. They come last, many at once: most
# breaks are noticed before them, and a break that makes a test hang is.
QUICK = 100
WAITING_AT_ONCE = 6

# Tests of one executable: a filter as GoogleTest takes it, and in how many processes they are run.
Part = collections.namedtuple("Part", "executable filter processes timeout")


class Failure(Exception):
    """What keeps breaks from being tried at all."""


def output_of(command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)
    if done.returncode != 0:
        raise Failure(f"{' '.join(map(str, command))}\n{done.stdout}")
    return done.stdout


def split(test):
    """An executable's name, and the filter of its tests, for a test of the table."""
    name, _, tests = test.partition(" ")
    return name, tests or "*"


def noticing(text):
    """The test that failed, or the one that was running when its program crashed or took too long."""
    failed = re.search(r"\[  FAILED  \] (\S+?)(,| \(|$)", text, re.MULTILINE)
    return failed[1] if failed else (re.findall(r"\[ RUN      \] (\S+)", text)[-1:] or [""])[0]


class Tree:
    def __init__(self, root, folder):
        self.root = root
        self.source = folder / "source"
        self.build = folder / "build"
        # Short, because a socket's path is; the tree itself must not be hidden.
        self.temporary = "/mnt" if Path("/tmp") in root.parents else "/tmp"
        self.broken = None  # the last break's path, whose objects are still those of the break
        self.parts = {}  # of each test of the table: those that are quick, and those that wait
        self.noticed_by = collections.defaultdict(collections.Counter)  # path: tests' names
        self.copy()

    def copy(self):
        """Makes the copy equal to the tree. What is equal already stays, and so do its objects."""
        files = output_of(["git", "-c", f"safe.directory={self.root}", "-C", self.root, "ls-files", "-co",
                           "--exclude-standard"]).split("\n")
        files = {name for name in files if (self.root / name).is_file()}
        for path in [path for path in self.source.rglob("*") if path.is_file()]:
            if str(path.relative_to(self.source)) not in files:
                path.unlink()
        for name in files:
            target = self.source / name
            if not target.exists() or not filecmp.cmp(self.root / name, target, shallow=False):
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(self.root / name, target)

    def configure(self):
        use = "-fuse-ld=mold" if shutil.which("mold") else "-fuse-ld=lld" if shutil.which("ld.lld") else ""
        output_of(["cmake", "-S", self.source, "-B", self.build, "-G", "Ninja", "--log-level=ERROR",
                   "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -w",
                   f"-DCMAKE_EXE_LINKER_FLAGS={use}", f"-DCMAKE_SHARED_LINKER_FLAGS={use}",
                   "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DORVANE_BUILD_BENCHMARKS=OFF",
                   "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST", "-DCMAKE_CXX_COMPILER_LAUNCHER=",
                   f"-DCMAKE_PROJECT_orvane_INCLUDE={Path(__file__).with_name('fast.cmake')}"])

    def ninja(self, *arguments):
        return output_of(["ninja", "-C", self.build, "-j1", *arguments])

    def build_tests(self, tests):
        """Builds the tests' executables, and asks that each is there and passes."""
        targets = set(line.split(":")[0] for line in self.ninja("-t", "targets", "all").split("\n"))
        executables = {split(test)[0] for test in tests}
        missing = sorted(name for name in executables if f"bin/{name}" not in targets)
        if missing:
            raise Failure(f"scripts/mutation/table.py names tests that are not built: {', '.join(missing)}")
        self.ninja(*(f"bin/{name}" for name in sorted(executables)))
        for test in tests:
            name, tests_filter = split(test)
            start = time.monotonic()
            code, text = self.run(Part(name, tests_filter, 1, 1200))
            seconds = time.monotonic() - start
            if code != 0:
                raise Failure(f"{test} fails although nothing is broken:\n{text[-4000:]}")
            took = re.findall(r"\[       OK \] (\S+) \((\d+) ms\)", text)
            if not took:
                raise Failure(f"scripts/mutation/table.py: {test}: this filter fits no test")
            quick = [one for one, milliseconds in took if int(milliseconds) < QUICK]
            waiting = [one for one, milliseconds in took if int(milliseconds) >= QUICK]
            timeout = max(SHORTEST_TIMEOUT, 5 * seconds)
            self.parts[test] = (Part(name, ":".join(quick), 1, SHORTEST_TIMEOUT) if quick else None,
                                Part(name, ":".join(waiting), WAITING_AT_ONCE, timeout) if waiting else None)

    def compiled_into(self, executables):
        """The files of the source tree that any of these executables was compiled from."""
        targets = [f"bin/{name}" for name in executables]
        inputs = {os.path.realpath(self.build / line.strip())
                  for line in self.ninja("-t", "inputs", *targets).split("\n")}
        files = set()
        for block in self.ninja("-t", "deps").split("\n\n"):  # an object's line, its source's, its headers'
            read = [os.path.realpath(self.build / line.strip()) for line in block.split("\n")[1:]]
            if read and read[0] in inputs:
                files.update(read)
        return files

    def write(self, path, text):
        (self.source / path).write_text(text)

    def try_break(self, one, tests):
        """Returns "noticed", "survived" or "unbuildable", and the test that noticed."""
        if self.broken not in (None, one.path):
            self.write(self.broken, (self.root / self.broken).read_text())
        self.broken = one.path
        lines = (self.root / one.path).read_text().splitlines()
        lines[one.first:one.last] = one.new
        self.write(one.path, "\n".join(lines) + "\n")
        for part in self.in_order(one.path, tests):
            # Only now: most breaks are noticed by the first test, and need no other executable.
            try:
                self.ninja(f"bin/{part.executable}")
            except Failure:
                return "unbuildable", ""
            code, text = self.run(part, "--gtest_fail_fast")
            if code != 0:
                name = noticing(text)
                self.noticed_by[one.path][part.executable, name] += 1
                return "noticed", f"{part.executable} {name}"
        return "survived", ""

    def in_order(self, path, tests):
        """Those that noticed most of the other breaks of this file, then the quick, then the others."""
        likely = collections.defaultdict(list)
        for (executable, name), _ in self.noticed_by[path].most_common(12):
            if name and executable in {split(test)[0] for test in tests}:
                likely[executable].append(name)
        parts = [Part(executable, ":".join(names), 1, SHORTEST_TIMEOUT)
                 for executable, names in likely.items()]
        return parts + [self.parts[test][which] for which in (0, 1) for test in tests
                        if self.parts[test][which] is not None]

    def run(self, part, *arguments):
        """The exit code and the output of a part's first process that fails; a code of None when it took
        too long."""
        command = [*NAMESPACES, *([] if os.geteuid() == 0 else ["--map-root-user"]), "sh", "-c", SANDBOX,
                   "sh", self.build / "bin" / part.executable, f"--gtest_filter={part.filter}", *arguments]
        processes = [subprocess.Popen(command, cwd=self.build, text=True, errors="replace",
                                      stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT,
                                      env={**os.environ, "TMPDIR": self.temporary,
                                           "GTEST_TOTAL_SHARDS": str(part.processes),
                                           "GTEST_SHARD_INDEX": str(index)})
                     for index in range(part.processes)]
        end = time.monotonic() + part.timeout
        result = (0, "")
        for process in processes:
            if result[0] != 0:
                process.kill()
            try:
                text, _ = process.communicate(timeout=max(0, end - time.monotonic()))
                code = process.returncode
            except subprocess.TimeoutExpired:
                process.kill()
                text, _ = process.communicate()
                code = None
            if result[0] == 0:
                result = (code, text)
        return result
