"""AFL++ on the fuzz targets: its build, and a run of one target."""
import os
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
FUZZ = ROOT / "fuzz"
QUIET = {"AFL_NO_UI": "1", "AFL_SKIP_CPUFREQ": "1", "AFL_NO_AFFINITY": "1",
         "AFL_I_DONT_CARE_ABOUT_MISSING_CRASHES": "1", "AFL_IGNORE_SEED_PROBLEMS": "1"}

# A compiler cache knows nothing of the variables that tell this compiler what to add.
BUILD = {"AFL_QUIET": "1", "CCACHE_DISABLE": "1",
         "AFL_LLVM_DENYLIST": str(FUZZ / "afl-uninstrumented.txt")}


def build(folder, targets):
    """Builds the targets under the sanitizers; returns where they are, plain and with the log of
    comparisons."""
    programs = {}
    for name, more in (("plain", {}), ("cmplog", {"AFL_LLVM_CMPLOG": "1"})):
        build_folder = folder.with_name(f"{folder.name}-{name}")
        log = build_folder.with_suffix(".log")
        log.parent.mkdir(parents=True, exist_ok=True)
        with open(log, "w") as out:
            for command in (
                ["cmake", "--preset", "fuzz-afl", "-B", str(build_folder)],
                ["cmake", "--build", str(build_folder), "--parallel", str(os.cpu_count()),
                 "--target"] + [target + "Afl" for target in targets],
            ):
                if subprocess.run(command, cwd=ROOT, stdout=out, stderr=out,
                                  env={**os.environ, **BUILD, **more}).returncode != 0:
                    sys.exit(f"fuzz/run: building failed, see {log}")
        programs[name] = build_folder / "fuzz"
    return programs


def keep_findings(out, target):
    """Puts what crashed or hung beside the other findings; returns how many there are."""
    found = [path for kind in ("crashes", "hangs") for path in (out / kind).glob("id*")]
    for path in found:
        folder = FUZZ / "regressions" / target
        folder.mkdir(parents=True, exist_ok=True)
        shutil.copy(path, folder / ("afl-" + re.sub("[^a-z0-9]+", "-", path.name)))
    return len(found)


def run(target, longest, programs, seconds, work):
    """Runs one target for so many seconds; returns what was tried, for the table of fuzz/run."""
    out, log = work / f"{target}-afl", work / f"{target}-afl.log"
    command = ["afl-fuzz", "-i", str(FUZZ / "corpus" / target), "-o", str(out), "-V", str(seconds),
               "-G", str(longest), "-m", "none", "-t", "10000",
               "-c", str(programs["cmplog"] / (target + "Afl")),
               "--", str(programs["plain"] / (target + "Afl"))]
    with open(log, "w") as text:
        subprocess.run(command, stdout=text, stderr=text, env={**os.environ, **QUIET})
    stats = out / "default" / "fuzzer_stats"
    if not stats.is_file():
        sys.exit(f"fuzz/run: AFL++ did not start:\n{log.read_text(errors='replace')[-2000:]}")
    values = dict(re.findall(r"^(\w+)\s*: (.*)$", stats.read_text(), re.M))
    return {"target": target, "bits": "64", "tried": int(values["execs_done"]),
            "rate": int(float(values["execs_per_sec"])), "edges": int(values["edges_found"]),
            "features": 0, "new": int(values["corpus_found"]),
            "failed": keep_findings(out / "default", target) > 0, "log": log}
