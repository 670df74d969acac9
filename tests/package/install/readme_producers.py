"""readme_producers.py README PKG_CONFIG TOOLS LIBRARIES: builds the first program of README in each language
with the installed tree, whose tools and libraries are in these folders, and runs it against the installed
server. The environment's CXX and CC are the compilers, and its FLAGS are for both. PYTHON is the interpreter,
which finds the package for Python by itself or by PYTHONPATH."""

import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

SECONDS = 60
DATA = b"14 crates of oranges"


class Broken(Exception):
    pass


class Server:
    """orvaned with a socket and a store in a folder."""

    def __init__(self, program, folder):
        self.socket = folder / "socket"
        self.store = folder / "store"
        self.store.mkdir()
        self.process = subprocess.Popen(
            [program, "--socket", self.socket, "--store", self.store], stderr=subprocess.PIPE, text=True)
        for line in self.process.stderr:
            if "serving leases at" in line:
                return
        raise Broken("the server did not start")

    def end(self):
        self.process.terminate()
        self.process.communicate(timeout=SECONDS)

    def check(self, output):
        streams = list(self.store.iterdir())
        if len(streams) != 1 or (streams[0] / "segment-000000").read_bytes() != DATA:
            raise Broken(f"the store has {streams}")
        if streams[0].name.split("-oranges-")[-1] not in output:
            raise Broken(f"the producer printed {output!r}")


def first_program(readme, language):
    return re.search(rf"^```{language}\n(.*?)^```$", readme, re.DOTALL | re.MULTILINE)[1]


def run_with_server(command, tools):
    with tempfile.TemporaryDirectory() as name:
        server = Server(tools / "orvaned", Path(name))
        try:
            done = subprocess.run([*command, server.socket], stdout=subprocess.PIPE, text=True, check=True,
                                  timeout=SECONDS)
        finally:
            server.end()
        server.check(done.stdout)


def build(folder, readme, language, compiler, package, pkg_config, libraries, flags):
    source = folder / f"producer.{language}"
    source.write_text(first_program(readme, language))
    found = subprocess.run([pkg_config, "--cflags", "--libs", package], stdout=subprocess.PIPE, text=True,
                           check=True).stdout.split()
    program = folder / f"producer_{language}"
    subprocess.run([*compiler, *flags, "-o", program, source, *found, f"-Wl,-rpath,{libraries}"], check=True)
    return program


def main():
    readme_path, pkg_config, tools, libraries = sys.argv[1:]
    readme = Path(readme_path).read_text()
    os.environ["PKG_CONFIG_PATH"] = f"{libraries}/pkgconfig"
    cxx, cc = os.environ.get("CXX", "c++"), os.environ.get("CC", "cc")
    with tempfile.TemporaryDirectory() as name:
        for language, compiler, package in (
                ("cpp", [cxx, "-std=c++20"], "orvane-lease"),
                ("c", [cc, "-std=c99", "-Wall", "-Wextra", "-Wpedantic", "-Werror"], "orvane-c")):
            program = build(Path(name), readme, language, compiler, package, pkg_config, libraries,
                            os.environ.get("FLAGS", "").split())
            run_with_server([program], Path(tools))
            print(f"{language}: stored")
        if "-fsanitize" in os.environ.get("FLAGS", ""):
            return  # the interpreter cannot load such a library
        program = Path(name) / "producer.py"
        program.write_text(first_program(readme, "python"))
        os.environ["LD_LIBRARY_PATH"] = libraries
        run_with_server([os.environ.get("PYTHON", "python3"), "-B", program], Path(tools))
        print("python: stored")


try:
    main()
except Broken as broken:
    sys.exit(f"readme_producers: {broken}")
