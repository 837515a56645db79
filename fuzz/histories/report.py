"""The deep form of the histories: both engines, each fault on purpose with what brings it to light, and the
programs that count the acquisitions and the fencing rounds of locks. Writes a report."""
from __future__ import annotations

import argparse
import datetime
import json
import os
import subprocess
import sys
from typing import Any

from histories import PLANTS

HERE = os.path.dirname(os.path.abspath(__file__))
PLANT_S, PLANT_EPOCH_S = 60, 3


def run(build: str, seed: int, *words: str) -> dict[str, Any]:
    done = subprocess.run([sys.executable, f"{HERE}/histories.py", build, f"--seed={seed}", *words],
                          stdout=subprocess.PIPE, text=True, check=False)
    if not done.stdout:
        sys.exit(f"no report: {' '.join(done.args[1:])} ended with {done.returncode}")
    result: dict[str, Any] = json.loads(done.stdout)
    result["good"] = done.returncode == 0
    return result


def lines_of(build: str, *words: str) -> tuple[bool, list[str]]:
    done = subprocess.run([f"{build}/bin/{words[0]}", *words[1:]], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False)
    return done.returncode == 0, done.stdout.splitlines()


def table(head: list[str], rows: list[list[object]]) -> str:
    lines: list[list[object]] = [[*head], ["---"] * len(head), *rows]
    return "".join(f"| {' | '.join(map(str, line))} |\n" for line in lines)


def of_engine(result: dict[str, Any]) -> str:
    rows: list[list[object]] = [[name, count] for name, count in result["counts"].items()]
    rows.append(["changes of the cluster, against which watches and counters are compared",
                 result["changes of the cluster"]])
    text = f"## {result['engine'].capitalize()}\n\nSeed {result['seed']}, {result['seconds']:.0f} s with what " \
           f"follows: **{result['violations']} violations**.\n\n{table(['What', 'Count'], rows)}\n" \
           f"{table(['Injected', 'Times'], [[*pair] for pair in result['faults'].items()])}\n"
    return text + "".join(f"- {check}: {text}\n" for check, (_, text) in result["first of each check"].items())


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build")
    parser.add_argument("report")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--seconds", type=int, default=1800, help="of the cluster; a third of it without one")
    parser.add_argument("--rounds", type=int, default=1000, help="of fencing")
    parser.add_argument("--acquisitions", type=int, default=200000, help="of rivals")
    options = parser.parse_args()
    build, seed = options.build, options.seed
    cluster = run(build, seed, f"--seconds={options.seconds}")
    embedded = run(build, seed, f"--seconds={options.seconds / 3}", "--engine=embedded")
    planted = {(name, kind): run(build, seed, f"--plant={name}", f"--kinds={kind}", f"--seconds={PLANT_S}",
                                 f"--epoch={PLANT_EPOCH_S}")
               for name, plant in PLANTS.items() for kind in (plant.kinds + ["none"] if plant.kinds else ["none needed"])}
    for (_, kind), result in planted.items():
        if kind == "none":  # the fault alone does not show itself
            result["good"] = result["violations"] == 0
    programs = [(words, lines_of(build, *words)) for words in
                (["fencing", str(options.rounds), "5"], ["rivals", str(options.acquisitions), str(seed)])]
    rows: list[list[object]] = []
    for (name, kind), result in planted.items():
        check = PLANTS[name].check
        first = result["first of each check"].get(check)
        rows.append([f"`{name}`", kind, check if first else "nothing" if kind == "none" else "**not found**",
                     f"{first[0] if first else result['seconds']:.0f} s"])
    with open(options.report, "w", encoding="utf-8") as file:
        file.write(f"# Histories under faults\n\nWritten by `make histories` on {datetime.date.today()}. README.md "
                   "beside this file describes what is run and checked.\n\n")
        file.write(of_engine(cluster) + "\n" + of_engine(embedded))
        file.write("\n## Faults on purpose\n\nEach in a run of its own, with no other faults than what brings it to "
                   "light, or with none, which must find nothing. The time includes that until a set of registers "
                   "is complete.\n\n" +
                   table(["On purpose", "Injected", "Found by", "After"], rows))
        file.write("\n## Locks of the cluster\n")
        for words, (_, lines) in programs:
            file.write(f"\n`{' '.join(words)}`:\n\n" + "".join(f"    {line}\n" for line in lines))
    good = all(one["good"] for one in (cluster, embedded, *planted.values())) and all(one[1][0] for one in programs)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
