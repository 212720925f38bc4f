#!/usr/bin/env python3
"""Writes the list of common passwords kobreportd refuses, one a line.

The list is made here, the same on every run, from the shapes people
choose when told "12 characters or more": runs and repeats of digits and
letters, walks along the keyboard, and common words and names doubled or
followed by years and digits.  Only passwords of 12 bytes or more are kept,
since shorter ones are refused anyway.  An operator with a better list
gives it to kobreportd with --common-passwords FILE.

    scripts/common-passwords.py > server/kobreportd/data/common-passwords.txt
"""

import itertools
import sys

COUNT = 10000
MIN_BYTES = 12

WORDS = """password iloveyou princess sunshine football baseball welcome dragon
monkey letmein master shadow superman batman trustno1 michael jennifer jordan
hunter ranger charlie starwars computer whatever qwerty admin administrator
changeme summer winter spring autumn freedom liverpool chelsea arsenal
soccer hockey basketball mustang harley ferrari internet secret access
flower butterfly chocolate cookie pepper ginger maggie buster tigger
ashley jessica daniel thomas robert andrew joshua matthew anthony william
samantha michelle nicole amanda melissa elizabeth christopher jonathan
killer hello love angel baby lovely family friends forever blessed
nothing google facebook linkedin microsoft apple samsung pokemon minecraft
naruto matrix phoenix thunder diamond silver golden orange purple yellow
master123 passw0rd p@ssword p@ssw0rd letmein1 welcome1 qwertyuiop asdfghjkl
zxcvbnm abc123 qazwsx trustnoone rockyou whatever1 monkey1 dragon1 security
london paris berlin madrid newyork chicago california canada america
mercedes porsche corvette yankees cowboys steelers packers lakers
marina natasha victoria alexander vladimir dmitry sergey andrey
""".split()

SUFFIXES = ["", "1", "12", "123", "1234", "12345", "123456", "1234567", "12345678",
            "123456789", "!", "!!", "1!", "123!", "@123", "#1", "01", "007", "69", "99",
            "00", "11", "13", "21", "22", "23", "77", "88", "666", "777", "999", "000",
            "111", "321", "4321", "54321", "654321"]
YEARS = [str(y) for y in range(2030, 1949, -1)]


def digit_runs():
    for n in range(MIN_BYTES, 21):
        yield "1234567890" * 2 + "1"
        yield ("1234567890" * 3)[:n]
        yield ("0123456789" * 3)[:n]
        yield ("9876543210" * 3)[:n]
        yield ("0987654321" * 3)[:n]
        for d in "0123456789":
            yield d * n
        for a, b in itertools.permutations("0123456789", 2):
            yield ((a + b) * n)[:n]
        for k in (3, 4, 5, 6):
            yield ("123456789"[:k] * n)[:n]


def repeats():
    for n in range(MIN_BYTES, 21):
        for c in "abcdefghijklmnopqrstuvwxyz":
            yield c * n
        for pair in ("ab", "xo", "ha", "la", "qw", "az"):
            yield (pair * n)[:n]


ROWS = ["1234567890", "qwertyuiop", "asdfghjkl", "zxcvbnm", "!@#$%^&*()",
        "qwertzuiop", "azertyuiop", "0987654321", "poiuytrewq", "lkjhgfdsa", "mnbvcxz"]


def keyboard_walks():
    cols = ["1qaz", "2wsx", "3edc", "4rfv", "5tgb", "6yhn", "7ujm", "8ik,", "9ol.", "0p;/"]
    colsup = ["qaz", "wsx", "edc", "rfv", "tgb", "yhn", "ujm"]
    yield "".join(cols[:3])
    yield "".join(cols[:4])
    yield "".join(c.replace(",", "").replace(".", "").replace(";", "").replace("/", "")
                  for c in cols[:5])
    for start in range(0, 4):
        for n in range(3, 8):
            w = "".join(cols[start:start + n])
            if len(w) >= MIN_BYTES:
                yield w
            w = "".join(colsup[start:start + n])
            if len(w) >= MIN_BYTES:
                yield w
    for a, b in itertools.product(ROWS, repeat=2):
        w = a + b
        if len(w) >= MIN_BYTES:
            yield w
        for n in range(MIN_BYTES, len(w) + 1):
            yield w[:n]
    for n in range(6, 11):
        yield "".join(x + y for x, y in zip("1234567890"[:n], "qwertyuiop"[:n]))
        yield "".join(y + x for x, y in zip("1234567890"[:n], "qwertyuiop"[:n]))
        yield "".join(x + y for x, y in zip("qwertyuiop"[:n], "asdfghjkl;"[:n]))


def words():
    for w in WORDS:
        yield w + w
        for s in SUFFIXES:
            yield w + s
            yield s + w
    # Recent years first, for every word, before the rarer shapes.
    for y in YEARS:
        for w in WORDS:
            yield w + y
    for y in YEARS:
        for w in WORDS:
            yield w + y + "!"
            yield w + "@" + y
    for a, b in itertools.product(WORDS, repeat=2):
        if a != b:
            yield a + b


def main():
    seen, out = set(), []
    for source in (digit_runs(), repeats(), keyboard_walks(), words()):
        for p in source:
            if len(p.encode()) >= MIN_BYTES and p not in seen:
                seen.add(p)
                out.append(p)
                if len(out) == COUNT:
                    sys.stdout.write("".join(x + "\n" for x in out))
                    return 0
    sys.stderr.write("only %d passwords\n" % len(out))
    return 1


if __name__ == "__main__":
    sys.exit(main())
