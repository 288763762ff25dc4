#!/usr/bin/python3
"""summary.py FOLDER [FOLDERS...]: what became of the mutants in FOLDER/results.jsonl, by the product's folders. A mutant counts once:
found if any run found it. FOLDER/survivors.txt names the others."""
import collections
import json
import os
import sys

folder, wanted = sys.argv[1], sys.argv[2:]
fates = {}
with open(os.path.join(folder, "results.jsonl")) as file:
    for line in file:
        result = json.loads(line)
        if fates.get(result["key"], ("",))[0] != "killed" and not (result["fate"] == "not reached" and result["key"] in fates):
            fates[result["key"]] = (result["fate"], result["preset"])
sums = collections.defaultdict(collections.Counter)
with open(os.path.join(folder, "survivors.txt"), "w") as survivors:
    for key, (fate, preset) in sorted(fates.items()):
        sums[key.split("/")[0]][fate] += 1
        sums["all"][fate] += 1
        if fate != "killed":
            survivors.write(f"{fate} ({preset}): {key}\n")
print(f"{'folder':12}{'mutants':>9}{'found':>9}{'survived':>10}{'not reached':>13}{'found':>9}")
for name in [name for name in wanted if name in sums] + ["all"]:
    count = sums[name]
    total = sum(count.values())
    print(f"{name:12}{total:9}{count['killed']:9}{count['survived']:10}{count['not reached']:13}{100 * count['killed'] / max(total, 1):8.1f} %")
