"""Changes the library in small ways, one at a time, and counts what the tests notice.

  tools/mutate [--seed TEXT] [--quick] [--survivors | --continue] [COUNT | SOURCE...]

COUNT       so many mutants, spread over all sources in proportion to their code; default: all
SOURCE      all mutants of these sources
--seed      another choice of COUNT mutants
--quick     asks only the quick cases of a source's own tests; --survivors may follow
--survivors once more those that the last run in this build tree left alive without a reason; the
            report is of that whole run
--continue  goes on with a run that was ended: what it found stands

survivors.tsv beside this file lists the mutants that may live: source, function, line, change and
the reason. The check fails when another one lives, when a listed one is noticed or gone, or when
fewer than 95 of 100 mutants are noticed. What does not count: what the compiler refuses or makes
the same code of, and what is listed as "equivalent", the same behaviour by other code.
build/mutate has results.tsv and report.md afterwards.
"""

import argparse
import collections
import concurrent.futures
import pathlib
import re
import sys
import threading
import time

from mutants import choose, in_any_order, mutants_of, name_of
from workshop import (BUILD, ROOT, SCRATCH, Bench, CannotCompile, Commands, Failed, Suite,
                      all_programs, configure_and_build, namespaces)

SURVIVORS = pathlib.Path(__file__).parent / "survivors.tsv"
RESULTS = BUILD / "results.tsv"
REPORT = BUILD / "report.md"
JOBS = 2
ENOUGH = 95  # of 100

# A source's own tests are those named for it: log.cpp has log_test and log_file_test. Here are
# those with other names.
OWN = {
    "checked_regex": ["regex_util_test", "simple_filter_test", "config_fault_test"],
    "execute_shell2": ["execute_shell_test"],
    "filesystem_util": ["log_file_test"],
    "hash_map": ["segment_check_test"],
    "long_action_util": ["long_action_method_test", "long_action_execute_test",
                         "long_action_codec_test", "long_action_child_test",
                         "long_action_fault_test"],
    "process_util": ["process_signal_test", "process_title_test"],
    "reference_scanner": ["config_translate_test", "ini_config_include_test"],
    "scaled_number": ["string_util_test", "ini_config_lookup_test"],
    "shared_word": ["hash_map_test", "shm_allocator_test", "heap_crash_test"],
    "xml_memory_watch": ["config_fault_test", "config_test"],
    "zelk_variable": ["log_test"],
}
# Who else uses it: asked about those that its own tests let live.
OTHERS = {
    "connection_pool": ["db_connection_pool_test"],
    "delay_stat": ["hash_map_test"],
    "filesystem_util": ["message_queue_test"],
    "hash_map": ["golden_image_test", "heap_crash_test", "zelk_inspect_test"],
    "machine_pool": ["state_machine_test", "long_action_util_test"],
    "message_queue": ["mq_pool_test", "golden_image_test", "segment_check_test",
                      "queue_crash_test"],
    "mysql_obj": ["db_connection_pool_test"],
    "regex_util": ["simple_filter_test"],
    "shm_allocator": ["hash_map_test", "golden_image_test", "segment_check_test",
                      "heap_crash_test"],
    "state_machine": ["machine_pool_test", "long_action_util_test"],
}


def who_noticed(program, trial):
    failed = re.search(r"^\[  FAILED  \] (\S+?)[, ]", trial.output, re.M)
    running = re.findall(r"^\[ RUN      \] (\S+)", trial.output, re.M)
    if "LeakSanitizer" in trial.output:
        return f"{program} leaks"
    if trial.timed_out:
        return f"{(running or [program])[-1]} too slow"
    return f"{failed.group(1)} failed" if failed else f"{(running or [program])[-1]} crashed"


def stem_of(file):
    return pathlib.Path(file).stem


def own_tests(file, programs, stems):
    stem = stem_of(file)
    named = [p for p in programs if p == f"{stem}_test"]
    for program in sorted(programs):
        longer = any(len(s) > len(stem) and program.startswith(s + "_") for s in stems)
        if program.startswith(stem + "_") and program not in named and not longer and \
                not program.endswith("_crash_test"):
            named.append(program)
    return [p for p in named + OWN.get(stem, []) if p in programs]


def other_tests(file, programs, own):
    return [p for p in OTHERS.get(stem_of(file), []) if p in programs and p not in own]


def read_sources():
    files = [*ROOT.glob("common/*.cpp"), *ROOT.glob("common/*.h"), *ROOT.glob("common/internal/*")]
    names = sorted(str(f.relative_to(ROOT)) for f in files)
    found = {name: mutants_of(name, (ROOT / name).read_text()) for name in names}
    return {name: mutants for name, mutants in found.items() if mutants}


def read_table(path):
    if not path.exists():
        return []
    return [line.split("\t") for line in path.read_text().splitlines()
            if line and not line.startswith("# ")]


class Check:
    def __init__(self, chosen, listed, unshare, quick):
        self.chosen, self.listed, self.quick = chosen, listed, quick
        self.commands = Commands()
        self.suite = Suite(self.commands)
        self.benches = [Bench(i, self.commands, unshare) for i in range(JOBS)]
        self.free = list(self.benches)
        self.lock = threading.Lock()
        self.results = {}
        stems = {stem_of(f) for f in read_sources()}
        self.own = {m.file: own_tests(m.file, self.suite.programs, stems) for m in chosen}
        self.others = {f: other_tests(f, self.suite.programs, own) for f, own in self.own.items()}

    def prove(self):
        """Nothing is said about a mutant by a test that would fail or pass anyway."""
        names = sorted({p for f in self.own for p in self.own[f] + self.others[f]})
        for file in self.own:
            if not self.own[file]:
                raise Failed(f"no test is named for {file}")
            if not any(file in inputs for inputs in self.commands.inputs.values()):
                raise Failed(f"nothing is built from {file}")
        with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
            list(pool.map(lambda i: self.suite.prove(self.benches[i], names[i::JOBS]), range(JOBS)))

    def run(self):
        """Tries what has no result yet, in an order that soon says something about every source."""
        begun = {tuple(row[2:]): row[:2] for row in read_table(RESULTS)}
        self.results = {m: begun[name_of(m)] for m in self.chosen if name_of(m) in begun}
        open_ones = [m for m in self.chosen if m not in self.results]
        with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
            list(pool.map(self._try, in_any_order(open_ones)))

    def _try(self, mutant):
        with self.lock:
            bench = self.free.pop()
        try:
            result, by = self._result(bench, mutant)
        finally:
            bench.restore(mutant.file)
            with self.lock:
                self.free.append(bench)
        with self.lock:
            self.results[mutant] = result, by
            with open(RESULTS, "a") as results:
                results.write("\t".join((result, by, *name_of(mutant))) + "\n")
            print(f"[{len(self.results)}/{len(self.chosen)}] {result:10} "
                  f"{mutant.file}:{mutant.line} {mutant.change} {by and '(' + by + ')'}", flush=True)

    def _result(self, bench, mutant):
        text = (ROOT / mutant.file).read_text()
        bench.put(mutant.file, text[:mutant.begin] + mutant.new + text[mutant.end:])
        try:
            changed = bench.compile_changed(self._library_objects(mutant.file))
            if not changed and mutant.file.endswith(".cpp"):
                return "same", ""
            if not bench.link_library(changed):
                return "refused", ""
            quick, rest = self.suite.rounds(self.own[mutant.file], self.others[mutant.file])
            noticed = self._ask_tests(bench, mutant, quick, changed)
            if noticed is None and bench.same_as_original(mutant.file, list(changed), ["-O2"]):
                return "same", ""
            if noticed is None and not self.quick and name_of(mutant) not in self.listed:
                noticed = self._ask_tests(bench, mutant, rest, changed)
        except CannotCompile:
            return "refused", ""
        return ("noticed", noticed) if noticed else ("alive", "")

    def _library_objects(self, file):
        """What is compiled anew: of a class's header only its own source, or all that include it
        when it has none. The tests that are asked are compiled anew as well."""
        uses = [o for o in self.commands.library_objects if file in self.commands.inputs[o]]
        return [o for o in uses if o.endswith(f"/{stem_of(file)}.cpp.o")] or uses

    def _ask_tests(self, bench, mutant, runs, changed):
        linked = {}
        for run in runs:
            if run.name not in linked:
                linked[run.name] = self._program(bench, mutant.file, run.name, changed)
            trial = bench.run(linked[run.name], [*run.arguments, "--gtest_fail_fast"], run.limit,
                              preload=run.preload)
            if not trial.passed:
                return who_noticed(run.name, trial)
        return None

    def _program(self, bench, file, name, changed):
        """The test program, compiled and linked anew when the mutant makes it another. Adds its
        objects to the changed ones."""
        objects = self.commands.objects_of_test(name)
        uses = [o for o in objects if file in self.commands.inputs[o] and o not in changed]
        changed.update(bench.compile_changed(uses))
        if not any(o in changed for o in objects):
            return self.suite.programs[name]
        path = self.suite.programs[name].relative_to(BUILD)
        output = bench.path / "programs" / name
        if not bench.link(str(path), output, changed):
            raise Failed(f"{name} can not be linked")
        return output


def _row(name, count, row):
    figures = [row[key] for key in ("noticed", "listed", "alive", "equivalent", "same")]
    return "| " + " | ".join(map(str, (name, count, *figures))) + " |"


def write_report(results, listed, seconds, arguments):
    rows = collections.OrderedDict()
    for mutant, (result, _) in sorted(results.items()):
        reason = listed.get(name_of(mutant), "")
        if result == "alive" and reason:
            result = "equivalent" if reason.startswith("equivalent") else "listed"
        rows.setdefault(mutant.file, collections.Counter())[result] += 1
    total = sum(rows.values(), collections.Counter())
    lines = ["| source | mutants | noticed | alive, with a reason | alive | equivalent | same code |",
             "|---" * 7 + "|"]
    counts = {name: row["noticed"] + row["listed"] + row["alive"] for name, row in rows.items()}
    for name, row in rows.items():
        lines.append(_row(name, counts[name], row))
    count = sum(counts.values())
    lines.append(_row("**all**", count, total))
    share = 100 * total["noticed"] / max(1, count)
    lines += ["", f"{count} mutants, {total['noticed']} noticed ({share:.1f} %), "
              f"{total['listed']} alive with a reason, {total['alive']} alive; besides "
              f"{total['equivalent']} equivalent ones, {total['same']} of which the compiler makes "
              f"the same code, and {total['refused']} that it refuses. "
              f"`script/mutate {' '.join(arguments)}`, {seconds / 60:.0f} minutes."]
    REPORT.write_text("\n".join(lines) + "\n")
    print("\n".join(lines))
    return share


def judge(results, listed, everything, share):
    """What is wrong, one line each."""
    wrong = []
    for mutant, (result, by) in results.items():
        name = name_of(mutant)
        what = f"{mutant.file}:{mutant.line}: {mutant.text}\n       {mutant.change}"
        if result == "alive" and name not in listed:
            wrong.append(f"alive: {what}")
        if result == "noticed" and name in listed:
            wrong.append(f"listed, but noticed by {by}: {what}")
    known = {name_of(m) for found in everything.values() for m in found}
    wrong += [f"listed, but gone: {' | '.join(name)}" for name in listed if name not in known]
    if share < ENOUGH:
        wrong.append(f"{share:.1f} % noticed, {ENOUGH} % are wanted")
    return wrong


def select(arguments, everything):
    if arguments.survivors:
        known = {tuple(row[2:]) for row in read_table(RESULTS)}
        return [m for found in everything.values() for m in found if name_of(m) in known]
    if len(arguments.what) == 1 and arguments.what[0].isdigit():
        return choose(everything, int(arguments.what[0]), arguments.seed)
    unknown = [what for what in arguments.what if what not in everything]
    if unknown:
        sys.exit(f"mutate: no code to change in {unknown[0]}")
    return [m for file in arguments.what or everything for m in everything[file]]


def forget(arguments, listed):
    """Drops the results that are to be found anew."""
    kept = []
    if arguments.survivors or arguments.go_on:
        kept = read_table(RESULTS)
    if arguments.survivors:
        kept = [row for row in kept if row[0] != "alive" or tuple(row[2:]) in listed]
    RESULTS.write_text("".join("\t".join(row) + "\n" for row in kept))


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--seed", default="1")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--survivors", action="store_true")
    parser.add_argument("--continue", action="store_true", dest="go_on")
    parser.add_argument("what", nargs="*")
    arguments = parser.parse_args()
    everything = read_sources()
    chosen = select(arguments, everything)
    unshare = namespaces()
    if unshare is None:
        sys.exit("mutate: needs root or user namespaces: mutants run in namespaces of their own")
    begin = time.monotonic()
    configure_and_build()
    listed = {tuple(row[:4]): row[4] for row in read_table(SURVIVORS)}
    check = Check(chosen, listed, unshare, arguments.quick)
    try:
        check.prove()
        print(f"mutate: {len(chosen)} mutants; the tests pass without one and notice a broken "
              "library", flush=True)
        forget(arguments, listed)
        check.run()
    except Failed as failure:
        sys.exit(f"mutate: {failure}")
    share = write_report(check.results, listed, time.monotonic() - begin, sys.argv[1:])
    wrong = judge(check.results, listed, everything, share)
    print("\n".join(wrong))
    sys.exit(1 if wrong else 0)


main()
