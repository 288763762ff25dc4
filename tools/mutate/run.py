#!/usr/bin/python3
"""Runs mutants: run.py PLANTED PRESET [--results FILE] [--most N] [--seconds N] [--seed N] [--longest SECONDS] [--program NAME...]
FOLDER...

PLANTED: a built copy of the tree with mutants (see plant.py). The tests of PRESET run once with no mutant alive and say which
mutants each of their cases comes by; then each mutant, in an order that the seed fixes, is alive for those cases, the quickest
first, until one fails. RESULTS gets a line for each, and those that it has are not run again. A mutant that no case comes by has
survived. Whatever a run leaves behind is ended with it: its processes are a group of their own.
"""
import argparse
import collections
import json
import os
import random
import re
import resource
import signal
import subprocess
import sys
import time

arguments = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
arguments.add_argument("planted")
arguments.add_argument("preset")
arguments.add_argument("folders", nargs="*")
arguments.add_argument("--results", required=True)
arguments.add_argument("--most", type=int, default=1 << 30, help="so many mutants")
arguments.add_argument("--seconds", type=float, default=1e9, help="for so long")
arguments.add_argument("--seed", type=int, default=1)
arguments.add_argument("--longest", type=float, default=5.0, help="cases that take longer are left out")
arguments.add_argument("--programs", default="", help="only test programs whose names match")
arguments.add_argument("--restart", default="", help="a command after a mutant that ran out of time")
options = arguments.parse_intermixed_args()

planted = os.path.realpath(options.planted)
build = os.path.join(planted, "build", options.preset)
with open(os.path.join(planted, "build", "mutants.json")) as file:
    mutants = json.load(file)
windows = options.preset == "windows"


def run(command, mutant, limit, tell=False):
    """@return how it ended (None: out of time), and what it said"""
    environment = dict(os.environ, KESTRA_MUTANT=str(mutant))
    environment.pop("KESTRA_MUTANT_TELL", None)
    if tell:
        seen = os.path.join(build, "seen")
        environment.update(KESTRA_MUTANT_TELL="1", KESTRA_MUTANT_SEEN=("Z:" if windows else "") + seen)

    def limits():
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_CPU, (int(limit) + 5, int(limit) + 5))
        if not windows:
            resource.setrlimit(resource.RLIMIT_AS, (4 << 30, 4 << 30))
            resource.setrlimit(resource.RLIMIT_FSIZE, (256 << 20, 256 << 20))

    work = os.path.join(build, "Testing", "mutants")
    os.makedirs(work, exist_ok=True)
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               start_new_session=True, env=environment, preexec_fn=limits, cwd=work)
    try:
        said, _ = process.communicate(timeout=limit)
        return process.returncode, said.decode(errors="replace")
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        return None, ""
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


# What each case comes by.
shown = subprocess.run(["ctest", "--preset", options.preset, "--show-only=json-v1"], cwd=planted, capture_output=True, text=True)
programs = {}
for test in json.loads(shown.stdout)["tests"]:
    command = test.get("command", [])
    if "--gtest_color=no" in command and os.path.exists(command[command.index("--gtest_color=no") - 1]) and \
            re.search(options.programs, test["name"]):
        programs[test["name"]] = command
cases = collections.defaultdict(list)  # mutant -> [(seconds, program, case)]
maps = os.path.join(build, "cases.json")
kept = {}
# Other mutants have other numbers.
if os.path.exists(maps) and os.path.getmtime(maps) > os.path.getmtime(os.path.join(planted, "build", "mutants.json")):
    with open(maps) as file:
        kept = json.load(file)
for name, command in programs.items():
    if name not in kept:
        code, said = run(command, -1, 900, tell=True)
        if code != 0:
            print(f"{name} fails with no mutant alive ({code}): left out", flush=True)
            failed = set(re.findall(r"^\[  FAILED  \] (\S+?),?(?: where.*)? \(\d+ ms\)", said, re.M))
            if code is None or not failed:
                kept[name] = []
                continue
        else:
            failed = set()
        kept[name] = [[int(ms) / 1000, case, [int(i) for i in ids.split()]]
                      for case, ms, ids in re.findall(r"^\[ MUTANTS  \] (\S+) (\d+)((?: \d+)*)\s*$", said, re.M) if case not in failed]
        print(f"{name}: {len(kept[name])} cases", flush=True)
        with open(maps, "w") as file:
            json.dump(kept, file)
    for seconds, case, ids in kept[name]:
        if seconds <= options.longest:
            for number in ids:
                cases[number].append((seconds, name, case))

done = {}
if os.path.exists(options.results):
    with open(options.results) as file:
        for line in file:
            result = json.loads(line)
            if result["fate"] == "killed" or result["preset"] == options.preset:
                done[result["key"]] = result


def key(mutant):
    return "{file}:{line}:{column}:{kind}:{text}".format(**mutant)


def judge(mutant):
    """@return its fate, and the case that found it"""
    wanted = sorted(set(cases[mutant["id"]]))
    if not wanted:
        return "not reached", ""
    # The quickest few of each program at once, then the others.
    rounds = collections.OrderedDict()
    spent = collections.Counter()
    for seconds, name, case in wanted:
        spent[name] += seconds + 0.001
        rounds.setdefault((0 if spent[name] < 1 else 1 if spent[name] < 10 else 2, name), []).append((seconds, case))
    for (_, name), chosen in sorted(rounds.items(), key=lambda entry: (entry[0][0], sum(s for s, _ in entry[1]))):
        for at in range(0, len(chosen), 200):
            part = chosen[at:at + 200]
            limit = 5 * sum(s for s, _ in part) + (30 if windows else 10)
            code, said = run(programs[name] + ["--gtest_fail_fast", "--gtest_filter=" + ":".join(c for _, c in part)], mutant["id"], limit)
            if code is None:
                if options.restart:
                    subprocess.run(options.restart, shell=True, stdin=subprocess.DEVNULL)
                return "killed", f"{name}: out of time"
            if code != 0:
                found = re.search(r"^\[  FAILED  \] (\S+?),?(?: where.*)? \(", said, re.M)
                last = re.findall(r"^\[ RUN      \] (\S+)", said, re.M)
                return "killed", f"{name}: {found[1] if found else 'ended in ' + (last[-1] if last else 'its start')}"
    return "survived", ""


order = [mutant for mutant in mutants if not options.folders or mutant["file"].startswith(tuple(f + "/" for f in options.folders)) or
         mutant["file"] in options.folders]
random.Random(options.seed).shuffle(order)
begun, count = time.monotonic(), 0
with open(options.results, "a") as results:
    for mutant in order:
        if count >= options.most or time.monotonic() - begun > options.seconds:
            break
        if key(mutant) in done:
            continue
        if not windows and not cases[mutant["id"]]:
            continue  # the Windows tests may come by
        fate, by = judge(mutant)
        count += 1
        entry = {"key": key(mutant), "fate": fate, "by": by, "preset": options.preset}
        results.write(json.dumps(entry) + "\n")
        results.flush()
        if fate != "killed":
            print(f"{fate}: {key(mutant)}", flush=True)
print(f"{count} mutants in {time.monotonic() - begun:.0f} s")
