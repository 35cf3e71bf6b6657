#!/usr/bin/env python3
"""Lists, samples and applies simple source mutants for scripts/mutate.sh.

  mutants.py sample SEED COUNT FILE...   prints a seeded sample, one mutant a line: file, line,
                                         column, old text, new text, kind (separated by \x1f, which
                                         unlike a tab keeps an empty field when the shell reads it)
  mutants.py apply FILE LINE COL OLD NEW  applies one mutant in place

Kinds: a comparison flipped (negated, or its boundary moved), && and || swapped,
a one-line statement dropped, an integer constant changed by one. String,
character literals and comments are never touched, nor preprocessor lines.
"""
import random
import re
import sys

NEGATED = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
BOUNDARY = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
COMPARISON = re.compile(r"(?<= )(==|!=|<=|>=|<|>)(?= )")
LOGICAL = re.compile(r"(?<= )(&&|\|\|)(?= )")
NUMBER = re.compile(r"(?<![\w.])(\d+)(?![\w.])")
DECLARATION = re.compile(r"^(?:const\s+|static\s+)*[A-Za-z_][\w:]*(?:<[^;]*>)?[\s*&]+[A-Za-z_]\w*\s*[=;({\[]")
KEYWORDS = ("return", "delete", "throw", "case", "goto", "else", "using", "namespace", "template", "typedef")


def Masked(lines):
    """The lines with literals and comments blanked out, so that positions stay."""
    out = []
    inBlock = False
    for line in lines:
        chars = list(line)
        i = 0
        quote = None
        while i < len(chars):
            c = chars[i]
            nxt = chars[i + 1] if i + 1 < len(chars) else ""
            if inBlock:
                if c == "*" and nxt == "/":
                    chars[i] = chars[i + 1] = " "
                    inBlock = False
                    i += 2
                    continue
                chars[i] = " "
            elif quote:
                if c == "\\":
                    chars[i] = " "
                    if i + 1 < len(chars):
                        chars[i + 1] = " "
                    i += 2
                    continue
                if c == quote:
                    quote = None
                else:
                    chars[i] = " "
            elif c == "/" and nxt == "/":
                for j in range(i, len(chars)):
                    chars[j] = " "
                break
            elif c == "/" and nxt == "*":
                chars[i] = chars[i + 1] = " "
                inBlock = True
                i += 2
                continue
            elif c in "\"'":
                quote = c
            i += 1
        out.append("".join(chars))
    return out


def IsDroppable(code, previous):
    text = code.strip()
    if not text.endswith(";") or text.count("(") != text.count(")") or "{" in text or "}" in text:
        return False
    if previous and previous[-1] not in ";{}":
        return False
    if text in ("return;", "break;", "continue;"):
        return True
    word = re.match(r"[A-Za-z_]\w*", text)
    if not word or word.group(0) in KEYWORDS:
        return False
    return not DECLARATION.match(text)


def Mutants(path):
    with open(path) as f:
        lines = f.read().split("\n")
    masked = Masked(lines)
    found = []
    previous = "{"
    for n, code in enumerate(masked, 1):
        if code.lstrip().startswith("#") or not code.strip():
            continue
        for m in COMPARISON.finditer(code):
            op = m.group(1)
            found.append((path, n, m.start(), op, NEGATED[op], "negate"))
            if op in BOUNDARY:
                found.append((path, n, m.start(), op, BOUNDARY[op], "boundary"))
        for m in LOGICAL.finditer(code):
            op = m.group(1)
            found.append((path, n, m.start(), op, "||" if op == "&&" else "&&", "logical"))
        for m in NUMBER.finditer(code):
            value = int(m.group(1))
            found.append((path, n, m.start(), m.group(1), str(value + 1), "constant"))
            if value > 0:
                found.append((path, n, m.start(), m.group(1), str(value - 1), "constant"))
        if IsDroppable(code, previous):
            start = len(code) - len(code.lstrip())
            found.append((path, n, start, lines[n - 1][start:].rstrip(), "", "drop"))
        previous = code.strip() or previous
    return found


def Sample(seed, count, paths):
    everything = [m for path in paths for m in Mutants(path)]
    chosen = random.Random(seed).sample(everything, min(count, len(everything)))
    for m in sorted(chosen, key=lambda m: (paths.index(m[0]), m[1], m[2], m[4])):
        print("\x1f".join(str(x) for x in m))


def Apply(path, line, col, old, new):
    with open(path) as f:
        lines = f.read().split("\n")
    text = lines[line - 1]
    if text[col:col + len(old)] != old:
        sys.exit(f"mutants.py: {path}:{line}:{col} does not read {old!r}")
    lines[line - 1] = text[:col] + new + text[col + len(old):]
    with open(path, "w") as f:
        f.write("\n".join(lines))


def main(argv):
    if len(argv) >= 4 and argv[1] == "sample":
        Sample(int(argv[2]), int(argv[3]), argv[4:])
    elif len(argv) == 7 and argv[1] == "apply":
        Apply(argv[2], int(argv[3]), int(argv[4]), argv[5], argv[6])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv)
