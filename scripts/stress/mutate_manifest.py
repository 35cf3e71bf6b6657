#!/usr/bin/env python3
"""Seeded mutations of the example manifests, for the stress scripts.

  mutate_manifest.py SEED COUNT OUTDIR

Writes OUTDIR/m_NNNN.yaml and OUTDIR/index.tsv, one line per file: path, kind,
and "fault" when the daemon must log a fault naming the file (wrong types,
broken syntax, nesting in place of a value), "cycle" when the file's
dependencies form a cycle, "-" when the file may well be valid. The kinds:
truncation, wrong types, random bytes, huge strings, deep nesting, duplicate
entries and keys, dependency cycles, 10000 entries, broken syntax, garbage.
The example's binaries are given a folder that does not exist, so that no
service really starts.
"""
import os
import random
import re
import sys

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")
SEEDS = ["base_services.yaml", "demo_appmgr_startup.yaml", "zulmgr_startup.yaml"]
# Keys of an entry and a value of the wrong type for each.
WRONG_TYPES = {
    "name": "{a: 1}", "bin_path": "[x, y]", "args": "{k: v}", "env": "[1, 2]", "uid": "root",
    "gid": "-x", "restart": "[on-forever]", "reporting": "maybe", "depends": "{a: b}",
    "startup_priority": "high", "nice": "[5]", "term_timeout_ms": "soon", "core_affinity": "all",
    "heartbeat": "yes", "sharepool_groups": "G", "dynamic_para": "12abc", "cgroup_path": "[cpu]",
}


def seed_texts():
    texts = []
    for name in SEEDS:
        with open(os.path.join(EXAMPLES, name)) as seed:
            text = seed.read()
        text = text.replace("@BIN@", "/nonexistent/bin").replace("@EXAMPLES@", "/nonexistent/examples")
        texts.append(text.replace("@CPU@", "0"))
    return texts


def entries_of(text):
    """The text before the first entry and the text of each entry."""
    parts = re.split(r"(?m)^(?=  - name:)", text)
    return parts[0], parts[1:]


def truncation(rng, text):
    return text[:rng.randrange(len(text))], "-"


def wrong_type(rng, text):
    head, entries = entries_of(text)
    index = rng.randrange(len(entries))
    key = rng.choice(sorted(WRONG_TYPES))
    entry = entries[index].rstrip("\n") + "\n    %s: %s\n" % (key, WRONG_TYPES[key])
    if key != "name" and re.search(r"(?m)^    %s:" % key, entries[index]):
        entry = re.sub(r"(?m)^    %s:.*(\n      .*)*" % key, "    %s: %s" % (key, WRONG_TYPES[key]), entries[index])
    entries[index] = entry
    return head + "".join(entries), "fault"


def random_bytes(rng, text):
    data = bytearray(text.encode())
    for _ in range(rng.randint(1, 20)):
        data[rng.randrange(len(data))] = rng.randrange(256)
    return bytes(data), "-"


def huge_string(rng, text):
    size = rng.choice([4096, 65536, 1 << 20])
    head, entries = entries_of(text)
    index = rng.randrange(len(entries))
    key = rng.choice(["bin_path", "restart", "cfg_path", "res_group"])
    entries[index] = entries[index].rstrip("\n") + '\n    %s: "%s"\n' % (key, "x" * size)
    if rng.random() < 0.5:
        entries[index] = entries[index].replace("  - name: ", "  - name: " + "n" * size, 1)
    return head + "".join(entries), "-"


def deep_nesting(rng, text):
    depth = rng.choice([100, 1000, 10000, 100000])
    head, entries = entries_of(text)
    index = rng.randrange(len(entries))
    key = rng.choice(["args", "env", "depends", "name"])
    value = "[" * depth + "]" * depth if rng.random() < 0.5 else "{a: " * depth + "b" + "}" * depth
    entries[index] = entries[index].rstrip("\n") + "\n    %s: %s\n" % (key, value)
    return head + "".join(entries), "fault"


def duplicates(rng, text):
    head, entries = entries_of(text)
    doubled = entries + [rng.choice(entries) for _ in range(rng.randint(1, 5))]
    rng.shuffle(doubled)
    index = rng.randrange(len(doubled))
    doubled[index] = doubled[index].rstrip("\n") + "\n    restart: no\n    restart: on-forever\n"
    return head + "".join(doubled), "-"


def cycles(rng, text):
    head, entries = entries_of(text)
    names = [re.match(r"  - name: (.*)", entry).group(1).strip().strip('"') for entry in entries]
    ring = rng.sample(range(len(entries)), rng.randint(1, min(4, len(entries))))
    for position, index in enumerate(ring):
        after = names[ring[(position + 1) % len(ring)]]
        entry = re.sub(r"(?m)^    depends:.*\n", "", entries[index])
        entries[index] = entry.rstrip("\n") + "\n    depends: [\"%s\"]\n" % after
    return head + "".join(entries), "cycle"


def many_entries(rng, text):
    lines = ["apps:"]
    for i in range(10000):
        lines.append("  - name: many_%05d\n    bin_path: /nonexistent/bin/many\n    depends: [many_%05d]"
                     % (i, rng.randrange(10000)))
    return "\n".join(lines) + "\n", "-"


def broken_syntax(rng, text):
    lines = text.split("\n")
    at = rng.randrange(len(lines))
    lines.insert(at, rng.choice(["    args: [unclosed, list", "  - name: {a", "\tname: tab", "apps: [", "  - : : :",
                                 "    env: {K: V"]))
    return "\n".join(lines), "fault"


def garbage(rng, text):
    return rng.randbytes(rng.choice([0, 1, 100, 10000])), "-"


KINDS = [truncation, wrong_type, random_bytes, huge_string, deep_nesting, duplicates, cycles, many_entries,
         broken_syntax, garbage]


def main():
    seed, count, outdir = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
    rng = random.Random(seed)
    texts = seed_texts()
    os.makedirs(outdir, exist_ok=True)
    with open(os.path.join(outdir, "index.tsv"), "w") as index:
        for number in range(count):
            kind = KINDS[number % len(KINDS)]
            text, must = kind(rng, rng.choice(texts))
            path = os.path.join(outdir, "m_%04d.yaml" % number)
            with open(path, "wb") as out:
                out.write(text if isinstance(text, bytes) else text.encode())
            index.write("%s\t%s\t%s\n" % (path, kind.__name__, must))


if __name__ == "__main__":
    main()
