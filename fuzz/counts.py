"""The inputs of all runs of the fuzzers, by commit, in fuzz/counts.json."""
import json
import pathlib
import subprocess

FUZZ = pathlib.Path(__file__).resolve().parent
FILE = FUZZ / "counts.json"
CHEAP = "FeatureDescription"
CHEAP_SHARE = 5  # at most one in so many inputs


def commit():
    """The commit that is tried; None where something is changed and not committed."""
    def git(*arguments):
        return subprocess.run(["git", *arguments], cwd=FUZZ, capture_output=True, text=True).stdout
    changed = [line for line in git("status", "--porcelain").splitlines()
               if not line.endswith("fuzz/counts.json") and "fuzz/corpus/" not in line]
    return None if changed else git("rev-parse", "--short=12", "HEAD").strip()


def read():
    return json.loads(FILE.read_text()) if FILE.is_file() else {}


def add(results, engine):
    """Adds results of one run (each with target, bits, tried) under the commit that is tried."""
    of = commit()
    if of is None:
        print("Not counted: there are changes that are not committed")
        return
    counts = read()
    for r in results:
        key = f"{r['target']} {r['bits']} {engine}"
        counts.setdefault(of, {})
        counts[of][key] = counts[of].get(key, 0) + r["tried"]
    FILE.write_text(json.dumps(counts, indent=1, sort_keys=True) + "\n")


def sums():
    """Inputs so far, as (target, bits, engine): inputs."""
    found = {}
    for of_commit in read().values():
        for key, tried in of_commit.items():
            found[tuple(key.split())] = found.get(tuple(key.split()), 0) + tried
    return found


def show(targets):
    """Prints a table: a row for each target, a column for each word size and engine."""
    found = sums()
    columns = sorted({key[1:] for key in found}, key=lambda column: (column[1] == "afl", column))
    print(f"{'target':<20}" + "".join(f"{bits + ' ' + engine:>16}" for bits, engine in columns))
    for target in targets:
        print(f"{target:<20}" + "".join(f"{found.get((target, *c), 0):>16,}" for c in columns))
    print(f"{'all':<20}" + "".join(
        f"{sum(n for key, n in found.items() if key[1:] == c):>16,}" for c in columns))
    print(f"{sum(found.values()):,} inputs on {len(read())} commits")


def without_cheap(targets):
    """The targets; without the cheap one where it has its share."""
    found = sums()
    cheap = sum(n for key, n in found.items() if key[0] == CHEAP)
    if len(targets) > 1 and cheap * CHEAP_SHARE > sum(found.values()):
        print(f"{CHEAP} has its share of the inputs")
        return [target for target in targets if target != CHEAP]
    return targets
