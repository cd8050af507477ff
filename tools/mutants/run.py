#!/usr/bin/env python3
"""Plants the faults of mutants.py one at a time in a bundlerun tree and runs its test suite.

usage: run.py TREE OUTPUT.json [ID...]

TREE is a git checkout with a configured ASan build in TREE/build. For every mutant (or only
the IDs given) the file is changed, the build is rebuilt (cmake --build build -j2), ctest runs
in TREE/build, the names of the failing tests are recorded, and the file is restored with
git checkout. A build failure is recorded as "build-failed". The tree is rebuilt once at the end.

OUTPUT.json maps id -> {"description", "failed_tests", ...}. It is written after every mutant;
entries of an existing OUTPUT.json for ids not run this time are kept. The ctest output of each
mutant goes to OUTPUT-logs/<id>.log beside it. The last line says how many planted faults the
suite caught.

Exit status: 0 every fault was planted, 1 a fault's text was not found exactly once (marked
"not_applied": its pin is stale) or the tree does not build, 64 bad usage.
"""

import json
import os
import re
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from mutants import MUTANTS  # noqa: E402

# --output-on-failure only adds the failing tests' output to the log.
CTEST_ARGS = ["ctest", "-j2", "-E", "RefusedConnections", "--timeout", "120",
              "--output-on-failure"]
BUILD_ARGS = ["cmake", "--build", "build", "-j2"]
# Whole-command limits, far above what a healthy run needs.
BUILD_LIMIT_S = 3600
CTEST_LIMIT_S = 3600

FAILED_LINE = re.compile(r"^\s*\d+\s+-\s+(\S+)\s+\((.+)\)\s*$")


class Terminated(Exception):
    pass


def on_sigterm(signum, frame):
    raise Terminated()


def run(args, cwd, limit):
    """Runs |args| in its own process group; kills the whole group if anything interrupts."""
    proc = subprocess.Popen(args, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            start_new_session=True, text=True, errors="replace")
    try:
        out, _ = proc.communicate(timeout=limit)
        return proc.returncode, out
    except BaseException:
        try:
            os.killpg(proc.pid, signal.SIGTERM)
            try:
                proc.wait(timeout=20)
            except subprocess.TimeoutExpired:
                os.killpg(proc.pid, signal.SIGKILL)
                proc.wait()
        except ProcessLookupError:
            pass
        raise


def parse_failures(output):
    """Returns {test name: ctest status} from the "The following tests FAILED:" block."""
    failures = {}
    in_block = False
    for line in output.splitlines():
        if line.startswith("The following tests FAILED:"):
            in_block = True
            continue
        if in_block:
            m = FAILED_LINE.match(line)
            if m:
                failures[m.group(1)] = m.group(2)
            elif line.strip():
                in_block = False
    return failures


def file_is_clean(tree, rel):
    return subprocess.run(["git", "-C", tree, "diff", "--quiet", "HEAD", "--", rel]).returncode == 0


def restore(tree, rel, original):
    # An interrupt must not leave the file half restored.
    blocked = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT, signal.SIGTERM})
    try:
        _restore(tree, rel, original)
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, blocked)


def _restore(tree, rel, original):
    path = os.path.join(tree, rel)
    subprocess.run(["git", "-C", tree, "checkout", "--", rel], check=False)
    with open(path, "rb") as f:
        now = f.read()
    if now != original:
        with open(path, "wb") as f:
            f.write(original)
    if not file_is_clean(tree, rel):
        raise RuntimeError("could not restore " + rel)


def save(output, results):
    tmp = output + ".tmp"
    with open(tmp, "w") as f:
        json.dump(results, f, indent=2, sort_keys=False)
        f.write("\n")
    os.replace(tmp, output)


def main():
    if len(sys.argv) > 1 and sys.argv[1] in ("-h", "--help"):
        print(__doc__)
        return 0
    if len(sys.argv) < 3:
        print(__doc__, file=sys.stderr)
        return 64
    tree = os.path.abspath(sys.argv[1])
    output = os.path.abspath(sys.argv[2])
    wanted = sys.argv[3:]
    by_id = {m[0]: m for m in MUTANTS}
    unknown = [i for i in wanted if i not in by_id]
    if unknown:
        print("unknown mutant ids: " + " ".join(unknown), file=sys.stderr)
        return 64
    selected = [by_id[i] for i in wanted] if wanted else list(MUTANTS)
    build_dir = os.path.join(tree, "build")
    if not os.path.isdir(build_dir):
        print("no build directory in " + tree, file=sys.stderr)
        return 1
    for rel in sorted({m[1] for m in selected}):
        if not file_is_clean(tree, rel):
            print("refusing: %s has local changes in %s" % (rel, tree), file=sys.stderr)
            return 1

    log_dir = os.path.splitext(output)[0] + "-logs"
    os.makedirs(log_dir, exist_ok=True)
    results = {}
    if os.path.exists(output):
        with open(output) as f:
            results = json.load(f)

    signal.signal(signal.SIGTERM, on_sigterm)
    status = 0
    try:
        rc, out = run(BUILD_ARGS, tree, BUILD_LIMIT_S)
        if rc != 0:
            print("the unmutated tree does not build:\n" + out[-4000:], file=sys.stderr)
            return 1
        for n, (mid, rel, old, new, description) in enumerate(selected, 1):
            path = os.path.join(tree, rel)
            with open(path, "rb") as f:
                original = f.read()
            text = original.decode()
            entry = {"description": description, "file": rel}
            count = text.count(old)
            if count != 1:
                # A fault that cannot be planted is a stale pin, not a fault that was caught.
                entry["failed_tests"] = []
                entry["not_applied"] = True
                entry["note"] = "old text occurs %d times" % count
                results[mid] = entry
                save(output, results)
                status = 1
                print("[%d/%d] %s: NOT APPLIED, old text occurs %d times" % (n, len(selected),
                                                                            mid, count),
                      flush=True)
                continue
            started = time.time()
            try:
                with open(path, "w") as f:
                    f.write(text.replace(old, new, 1))
                rc, out = run(BUILD_ARGS, tree, BUILD_LIMIT_S)
                if rc != 0:
                    entry["failed_tests"] = ["build-failed"]
                    log = out
                else:
                    rc, out = run(CTEST_ARGS, build_dir, CTEST_LIMIT_S)
                    log = out
                    failures = parse_failures(out)
                    entry["failed_tests"] = sorted(failures)
                    entry["statuses"] = failures
                    if rc != 0 and not failures:
                        entry["failed_tests"] = ["ctest-error"]
            finally:
                restore(tree, rel, original)
            entry["seconds"] = round(time.time() - started, 1)
            with open(os.path.join(log_dir, mid + ".log"), "w") as f:
                f.write(log)
            results[mid] = entry
            save(output, results)
            print("[%d/%d] %s: %s (%.0fs)" % (n, len(selected), mid,
                                             ", ".join(entry["failed_tests"]) or "NOT CAUGHT",
                                             entry["seconds"]), flush=True)
        planted = [results[m[0]] for m in selected if not results[m[0]].get("not_applied")]
        caught = sum(1 for e in planted if e["failed_tests"])
        print("caught %d of %d planted faults; %d could not be planted" %
              (caught, len(planted), len(selected) - len(planted)), flush=True)
    except (KeyboardInterrupt, Terminated):
        print("interrupted; every file is restored", file=sys.stderr, flush=True)
        status = 130
    finally:
        signal.signal(signal.SIGTERM, signal.SIG_DFL)
        rc, out = run(BUILD_ARGS, tree, BUILD_LIMIT_S)
        print("final rebuild " + ("ok" if rc == 0 else "FAILED:\n" + out[-4000:]), flush=True)
    return status


if __name__ == "__main__":
    sys.exit(main())
