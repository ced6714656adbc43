#!/usr/bin/env python3
"""qvheap beside the heap profilers that people use, on programs that people run.

Each program runs by itself, under qvheap in both modes, under heaptrack and under valgrind's massif, one
after the other in every round, so that a slow minute of the machine meets all of them. The table shows
medians and, in brackets, the ratio to the program by itself: elapsed time, processor time (of all its
processes) and the largest peak of memory among them.

Programs are started by time(1), which is small: a process's peak has in it what its parent had when it
was forked, and an interpreter would be the largest of some programs.

heaptrack counts the first process alone, so where the others do the work (git) it has little to do.
"""
import argparse
import os
import shlex
import shutil
import statistics
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def sqlite3(folder):
    sql = """create table t(a integer, b integer, c text);
with recursive n(i) as (select 1 union all select i + 1 from n where i < 200000)
insert into t select i, i * 7919 % 200003, 'row number ' || i from n;
create index x on t(b, c);
select count(*), sum(b), max(c) from t where b > 1000;
"""
    with open(os.path.join(folder, "load.sql"), "w") as script:
        script.write(sql)
    return ["sqlite3", ":memory:", ".read load.sql"]


def python3(folder):
    with open(os.path.join(folder, "trip.py"), "w") as script:  # heaptrack cannot read lines in a command line
        script.write("import json\n"
                     "rows = [{'id': i, 'name': 'row %d' % i, 'values': list(range(i % 20))} for i in range(60000)]\n"
                     "text = json.dumps(rows)\n"
                     "print(len(text), json.loads(text) == rows)\n")
    # The system's own: a version manager puts a shell script in front of its ones, which would be measured, too.
    interpreter = shutil.which("python3", path="/usr/bin:/bin") or os.path.realpath(sys.executable)
    return ["env", "PYTHONMALLOC=malloc", interpreter, "trip.py"]


def git(folder):
    repository = os.path.join(folder, "made")
    run = lambda *words, **more: subprocess.run(("git", "-C", repository) + words, check=True, **more)
    os.mkdir(repository)
    run("-c", "init.defaultBranch=main", "init", "-q")
    stream = ["commit refs/heads/main\ncommitter a <a> 1 +0000\ndata 0\n"]
    for number in range(1, 700):
        text = "".join("line %d of %d\n" % (line * line % (number + 7), number) for line in range(50))
        stream.append("commit refs/heads/main\ncommitter a <a> %d +0000\ndata 0\n"
                      "M 100644 inline f%d\ndata %d\n%s\n" % (number, number % 90, len(text), text))
    run("fast-import", "--quiet", input="".join(stream).encode())
    # gc changes the repository, so each run has a copy.
    return ["sh", "-c", "rm -rf copy && cp -r made copy && exec \"$@\" git -C copy gc -q --aggressive --prune=now", "sh"]


def gcc(folder):
    """The compiler proper: its driver would be the process that heaptrack counts."""
    with open(os.path.join(folder, "one.cpp"), "w") as source:
        source.write("#include <algorithm>\n#include <map>\n#include <string>\n#include <vector>\n"
                     "void Sort(std::vector<std::string>& v) { std::sort(v.begin(), v.end()); }\n"
                     "std::map<std::string, int> Count(const std::string& s) { return {{s, 1}}; }\n")
    shown = subprocess.run(["g++", "-###", "-O2", "-std=c++20", "-S", "one.cpp", "-o", "one.s"], cwd=folder,
                           check=True, capture_output=True, text=True).stderr
    return next(words for words in map(shlex.split, shown.splitlines()) if words and "cc1plus" in words[0])


def sort(folder):
    with open(os.path.join(folder, "lines"), "w") as lines:
        lines.writelines("%d %x\n" % (i * 7919 % 1000003, i) for i in range(1000000))
    return ["sort", "--parallel=2", "-o", "sorted", "lines"]


def threads(folder):
    """A program of ours: two threads that allocate at different places."""
    source = os.path.join(ROOT, "bench/collectors_threads.c")
    subprocess.run(["cc", "-O2", "-g", "-pthread", "-fno-builtin-malloc", "-o", "threads", source], cwd=folder, check=True)
    return ["./threads"]


PROGRAMS = {"sqlite3": sqlite3, "python3": python3, "git": git, "gcc": gcc, "sort": sort, "threads": threads}


def tools(qvheap):
    """What stands before the program's own words, by name; {} is a folder for its files."""
    made = {"native": []}
    help_text = subprocess.run([qvheap, "-help"], capture_output=True, text=True).stdout
    made["qvheap"] = [qvheap, "-quiet", "-out", "{}", "--"]
    if "-exact" in help_text:
        made["qvheap -exact"] = [qvheap, "-quiet", "-exact", "-out", "{}", "--"]
    if shutil.which("heaptrack"):
        made["heaptrack"] = ["heaptrack", "-o", "{}/heaptrack"]
    if shutil.which("valgrind"):
        made["massif"] = ["valgrind", "-q", "--tool=massif", "--trace-children=yes",
                          "--massif-out-file={}/massif.%p"]
    return made


def insert(words, prefix):
    """The tool's words before the program's: for a script that prepares something, as its arguments, and
    after what sets the environment."""
    if words[0] == "sh":
        return words + prefix
    if words[0] == "env":
        return words[:2] + prefix + words[2:]
    return prefix + words


class ToolFailed(Exception):
    pass


def run_once(words, prefix, folder):
    """Elapsed seconds, processor seconds, MiB; and what the program wrote."""
    out = os.path.join(folder, "tool")
    shutil.rmtree(out, ignore_errors=True)
    os.mkdir(out)
    figures = os.path.join(folder, "figures")
    line = ["time", "-o", figures, "-f", "%e %U %S %M"] + insert(words, [w.replace("{}", out) for w in prefix])
    done = subprocess.run(line, cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if done.returncode != 0:
        raise ToolFailed("status %d: %s" % (done.returncode, done.stderr.decode(errors="replace").strip()[-200:]))
    with open(figures) as text:
        elapsed, user, system, kib = text.read().split()[-4:]
    return (float(elapsed), float(user) + float(system), int(kib) / 1024), done.stdout


def show_progress(text):
    if sys.stderr.isatty():
        print("\r%s\033[K" % text, end="", file=sys.stderr, flush=True)


def measure(name, chosen, rounds):
    """The medians by tool; of a tool under which the program fails, why."""
    runs = {tool: [] for tool in chosen}
    failed = {}
    with tempfile.TemporaryDirectory(prefix="qvbench.") as folder:
        words = PROGRAMS[name](folder)
        expected = run_once(words, [], folder)[1]  # and what it reads is in memory from here on
        for turn in range(rounds):
            order = list(chosen)
            for tool in order[turn % len(order):] + order[:turn % len(order)]:
                if tool in failed:
                    continue
                show_progress("%s: round %d of %d, %s" % (name, turn + 1, rounds, tool))
                try:
                    figures, output = run_once(words, chosen[tool], folder)
                    if expected not in output:  # heaptrack's own words come on the same stream
                        raise ToolFailed("the program writes something else")
                    runs[tool].append(figures)
                except ToolFailed as reason:
                    failed[tool] = " ".join(str(reason).split())
    show_progress("")
    medians = {tool: [statistics.median(column) for column in zip(*rows)] for tool, rows in runs.items()}
    return medians, failed


def cell(value, base):
    return "%9.2f (%5.2f)" % (value, value / base if base else 0)


def main():
    parser = argparse.ArgumentParser(prog="./run bench collectors", description=__doc__.split("\n")[0])
    parser.add_argument("-runs", type=int, default=5, help="of each program under each tool (default: 5)")
    parser.add_argument("-programs", default=",".join(PROGRAMS), help="a list of %s" % ", ".join(PROGRAMS))
    parser.add_argument("-tools", help="a list of native, qvheap, 'qvheap -exact', heaptrack, massif")
    parser.add_argument("-qvheap", default=os.path.join(ROOT, "build/release/bin/qvheap"))
    line = parser.parse_args()
    available = tools(line.qvheap)
    chosen = {name: available[name] for name in available
              if name == "native" or not line.tools or name in line.tools.split(",")}
    for name in (line.tools or "native").split(","):
        if name not in available:
            parser.error("there is no tool '%s'" % name)
    for name in line.programs.split(","):
        if name not in PROGRAMS:
            parser.error("there is no program '%s'" % name)
    print("%-10s %-14s %17s %17s %17s   medians of %d, (ratio to native)" %
          ("program", "under", "elapsed s", "processor s", "peak MiB", line.runs))
    for name in line.programs.split(","):
        medians, failed = measure(name, chosen, line.runs)
        for tool in chosen:
            shown = "failed: " + failed[tool] if tool in failed else " ".join(
                map(cell, medians[tool], medians["native"]))
            print("%-10s %-14s %s" % (name, tool, shown), flush=True)


if __name__ == "__main__":
    main()
