"""Builds mutated libraries and runs tests against them, each run in namespaces of its own."""

import collections
import filecmp
import json
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import threading

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build" / "mutate"
SCRATCH = BUILD / "scratch"
LIBRARY = "common/libzelk_common.so"
SLOW_CASE = 0.3  # seconds; such a case runs in the second round

# A mutant may do anything. It sees no processes, segments, queues and networks but its own, may
# write only below its own directory, and all that it has started ends with it.
NAMESPACES = ["unshare", "--mount", "--pid", "--fork", "--mount-proc", "--ipc", "--net",
              "--kill-child"]
INSIDE = r"""
set -e
ip link set lo up
mount -t tmpfs -o size=1g none "$PLACE"
if [ "$SHUT" = 1 ]; then
  mount --rbind "$ROOT" "$ROOT"
  mount -o remount,bind,ro "$ROOT"
  case $ROOT in
    /tmp/*) ;;
    *) mount --bind "$PLACE" /tmp && mount -o remount,bind,ro / ;;
  esac
fi
cd "$PLACE"
export TMPDIR=$PLACE HOME=$PLACE
ulimit -c 0
ulimit -d 4000000
set +e
LD_PRELOAD=$PRELOAD "$@"
exit $?
"""

Trial = collections.namedtuple("Trial", "passed timed_out output")
Case = collections.namedtuple("Case", "name seconds")
Run = collections.namedtuple("Run", "name arguments limit preload", defaults=[""])


class CannotCompile(Exception):
    pass


class Failed(Exception):
    """Of the check itself, not of a mutant."""


def namespaces():
    """The command that shuts a test program up; None when this user may not."""
    for command in (NAMESPACES, [*NAMESPACES[:1], "--user", "--map-root-user", *NAMESPACES[1:]]):
        tried = subprocess.run([*command, "ip", "link", "set", "lo", "up"], capture_output=True)
        if tried.returncode == 0:
            return command
    return None


def configure_and_build():
    """The library and its tests, without the example server's and without anything slow."""
    subprocess.run(
        ["cmake", "-G", "Ninja", "-S", ROOT, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Release",
         "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG", "-DZELK_BUILD_EXAMPLES=OFF",
         "-DZELK_BUILD_BENCH=OFF", "-DZELK_INSTALL=OFF"],
        check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", BUILD, "--", "--quiet"], check=True)


class Commands:
    """How the build compiles and links, and which object has been made from which files."""

    def __init__(self):
        entries = json.loads((BUILD / "compile_commands.json").read_text())
        self.compile = {}
        for entry in entries:
            output = re.search(r" -o (\S+)", entry["command"]).group(1)
            self.compile[output] = entry["command"]
        self.inputs = self._inputs()
        self.library_objects = [o for o in self.compile if o.startswith("common/")]
        self.link_cache = {}

    @staticmethod
    def _inputs():
        inputs, current = {}, None
        text = subprocess.run(["ninja", "-C", BUILD, "-t", "deps"], check=True, capture_output=True,
                              text=True).stdout
        for line in text.splitlines():
            if line and not line[0].isspace():
                current = inputs.setdefault(line.split(":")[0], set())
            elif line.strip():
                path = os.path.normpath(BUILD / line.strip())
                if path.startswith(f"{ROOT}/"):
                    current.add(os.path.relpath(path, ROOT))
        return inputs

    def link(self, target):
        if target not in self.link_cache:
            text = subprocess.run(["ninja", "-C", BUILD, "-t", "commands", target], check=True,
                                  capture_output=True, text=True).stdout
            output = "libzelk_common.so.1.0.0" if target == LIBRARY else target
            lines = [line for line in text.splitlines() if re.search(rf"-o \S*{output} ", line)]
            self.link_cache[target] = lines[-1].removeprefix(": && ").split(" && ")[0]
        return self.link_cache[target]

    def objects_of_test(self, program):
        return [o for o in self.compile if o.startswith(f"tests/CMakeFiles/{program}.dir/") or
                o.startswith(f"tests/crash/CMakeFiles/{program}.dir/")]


def all_programs():
    found = [*(BUILD / "tests").glob("*_test"), *(BUILD / "tests" / "crash").glob("*_test")]
    return {path.name: path for path in found}


class Bench:
    """A place where one mutant at a time is built and tried."""

    def __init__(self, number, commands, unshare):
        self.path = SCRATCH / str(number)
        self.commands, self.unshare = commands, unshare
        shutil.rmtree(self.path, ignore_errors=True)
        self.sources = self.path / "source"
        self.objects = self.path / "objects"
        self.library = self.path / "library"
        self.place = self.path / "place"
        for directory in (self.objects, self.library, self.place, self.path / "programs"):
            directory.mkdir(parents=True)
        shutil.copytree(ROOT / "common", self.sources / "common")

    def put(self, file, text):
        (self.sources / file).write_text(text)

    def restore(self, file):
        self.put(file, (ROOT / file).read_text())

    def compile(self, name, options=()):
        """Compiles an object of the build from this place's sources; returns its path."""
        output = self.objects / (name.replace("/", "_") + "".join(options))
        command = self.commands.compile[name].replace(f"{ROOT}/common", f"{self.sources}/common")
        words = shlex.split(command)
        words[words.index("-o") + 1] = str(output)
        words += ["-w", f"-ffile-prefix-map={self.sources}/=", *options]
        if subprocess.run(words, cwd=BUILD, capture_output=True,
                          start_new_session=True).returncode != 0:
            raise CannotCompile
        return output

    def compile_changed(self, names):
        """Compiles and returns those of the objects that are not as the build made them."""
        changed = {}
        for name in names:
            output = self.compile(name)
            if not filecmp.cmp(output, BUILD / name, shallow=False):
                changed[name] = output
        return changed

    def same_as_original(self, file, names, options=()):
        """The objects do not tell the mutant, which is in place now, from the original."""
        mutated = (self.sources / file).read_text()
        for name in names:
            changed = self.compile(name, options)
            kept = changed.rename(str(changed) + ".mutated")
            self.restore(file)
            same = filecmp.cmp(kept, self.compile(name, options), shallow=False)
            self.put(file, mutated)
            if not same:
                return False
        return True

    def link(self, target, output, objects):
        """Links a target of the build with some of its objects replaced; returns success."""
        words = shlex.split(self.commands.link(target))
        words = [str(objects.get(word, word)) for word in words]
        words[words.index("-o") + 1] = str(output)
        return subprocess.run(words, cwd=BUILD, capture_output=True).returncode == 0

    def link_library(self, objects):
        return self.link(LIBRARY, self.library / "libzelk_common.so.1", objects)

    def run(self, program, arguments, limit, shut=True, preload=""):
        environment = {k: v for k, v in os.environ.items() if not k.startswith("GTEST_")}
        environment.update(ROOT=str(ROOT), PLACE=str(self.place), SHUT="1" if shut else "0",
                           PRELOAD=preload, LD_LIBRARY_PATH=str(self.library))
        with open(self.path / "output", "w+b") as output:
            child = subprocess.Popen(
                [*self.unshare, "bash", "-c", INSIDE, "bash", str(program), "--gtest_color=no",
                 *arguments],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, env=environment,
                start_new_session=True)
            timed_out = False
            try:
                child.wait(limit)
            except subprocess.TimeoutExpired:
                timed_out = True
                os.killpg(child.pid, signal.SIGKILL)
                child.wait()
            output.seek(max(0, os.fstat(output.fileno()).st_size - 4000000))
            text = output.read().decode(errors="replace")
        return Trial(child.returncode == 0, timed_out, text)


class Suite:
    """The test programs, what each case of them takes, and the proof that they are fit."""

    def __init__(self, commands):
        self.programs = all_programs()
        self.commands = commands
        self.cases = {}
        self.fit_for_leaks = set()
        # It tells at the end what was allocated and is lost.
        self.leak_finder = subprocess.run(["c++", "-print-file-name=liblsan.so"], check=True,
                                          capture_output=True, text=True).stdout.strip()
        self.lock = threading.Lock()

    def prove(self, bench, names):
        """Each program passes with the library as it is, and fails with one that ends at once. What
        has been proved of the programs as they are now is not proved again."""
        fresh = [name for name in names if not self._remember(name)]
        bench.link_library({})
        for name in fresh:
            trial = bench.run(self.programs[name], [], 600)
            if not trial.passed:  # some make a file in the build tree the first time
                bench.run(self.programs[name], [], 600, shut=False)
                trial = bench.run(self.programs[name], [], 600)
            if not trial.passed:
                raise Failed(f"{name} fails without any mutant:\n{trial.output[-3000:]}")
            self.cases[name] = [Case(*m) for m in self._times(trial.output)]
            if bench.run(self.programs[name], [self._quick(name)], 600,
                         preload=self.leak_finder).passed:
                self.fit_for_leaks.add(name)
        self._prove_that_the_library_counts(bench, fresh)
        for name in fresh:
            self._proof(name).write_text(json.dumps(
                {"built": self._built(name), "cases": self.cases[name],
                 "leaks": name in self.fit_for_leaks}))

    @staticmethod
    def _proof(name):
        return SCRATCH / f"{name}.json"

    def _built(self, name):
        return [path.stat().st_mtime_ns for path in (self.programs[name], BUILD / f"{LIBRARY}.1")]

    def _remember(self, name):
        try:
            proof = json.loads(self._proof(name).read_text())
        except FileNotFoundError:
            return False
        if proof["built"] != self._built(name):
            return False
        self.cases[name] = [Case(*c) for c in proof["cases"]]
        if proof["leaks"]:
            self.fit_for_leaks.add(name)
        return True

    @staticmethod
    def _times(output):
        line = r"^\[       OK \] (\S+?)(?:, where .*)? \((\d+) ms\)"
        for match in re.finditer(line, output, re.M):
            yield match.group(1), int(match.group(2)) / 1000

    def _prove_that_the_library_counts(self, bench, names):
        source, broken = bench.objects / "broken.cpp", bench.objects / "broken.o"
        source.write_text("#include <unistd.h>\n"
                          "__attribute__((constructor)) void Break() { _exit(3); }\n")
        subprocess.run(["c++", "-fPIC", "-c", source, "-o", broken], check=True)
        if not bench.link_library(self._with(bench, self.commands.library_objects[0], broken)):
            raise Failed("the library that is broken on purpose can not be linked")
        for name in names:
            program = self.programs[name]
            if b"libzelk_common.so" not in program.read_bytes():  # it has the code itself
                program = bench.path / "programs" / name
                own = self.commands.objects_of_test(name)[0]
                if not bench.link(f"tests/{name}", program, self._with(bench, own, broken)):
                    raise Failed(f"{name}, broken on purpose, can not be linked")
            if bench.run(program, [], 60).passed:
                raise Failed(f"{name} passes with a broken library: it loads another one")

    @staticmethod
    def _with(bench, name, more):
        """An object of the build, and another one with it."""
        merged = bench.objects / "merged.o"
        subprocess.run(["ld", "-r", BUILD / name, more, "-o", merged], check=True)
        return {name: merged}

    def rounds(self, own, others):
        """Two lists: the quick cases of the source's own tests; the same with an eye on leaks,
        their slow ones and the others' tests."""
        quick, leaks, rest = [], [], []
        for name in own:
            limit = self._limit(name, False)
            quick.append(Run(name, [self._quick(name)], limit))
            if name in self.fit_for_leaks:
                leaks.append(Run(name, [self._quick(name)], 2 * limit, self.leak_finder))
            if self._slow(name):
                slow = "--gtest_filter=" + self._slow(name)
                rest.append(Run(name, [slow], self._limit(name, True)))
        rest += [Run(name, [], self._limit(name, True)) for name in others]
        return quick, leaks + rest

    def _slow(self, name):
        return ":".join(c.name for c in self.cases[name] if c.seconds >= SLOW_CASE)

    def _quick(self, name):
        return f"--gtest_filter=*{'-' if self._slow(name) else ''}{self._slow(name)}"

    def _limit(self, name, slow):
        seconds = sum(c.seconds for c in self.cases[name] if slow or c.seconds < SLOW_CASE)
        return 6 + 5 * seconds
