#!/usr/bin/env python3
"""Generate the library's Unicode tables from the Unicode character database.

The tables reproduce Unicode 8.0.0. The data this is run against is usually
newer (Debian's unicode-data package), so the 8.0 content is rebuilt first:
code points newer than 8.0 are dropped by DerivedAge.txt, mappings into them
are dropped, and the few general categories that changed since are put back.

Writes:
  basicutil/UnicodeProperties.inc    character property runs, keyed on utf8bytes
  basicutil/UnicodeCombining.inc     combining marks and the combiner rules
  libzero/codepoint-width-table.inc  display width runs, keyed on code point

Usage:
  gen_unicode_tables.py [--data DIR] [--root DIR] [--check]

--check regenerates in memory and compares with the files under --root; it
exits 1 on any difference and 0 (with a "skipped" line) when the data
directory is not there, so that a machine without unicode-data can run it.
"""

import argparse
import difflib
import os
import sys

DEFAULT_DATA_DIR = "/usr/share/unicode"
TARGET_AGE = (8, 0)
SCRIPT_NAME = "tools/unicode/gen_unicode_tables.py"

PROPERTIES_FILE = "basicutil/UnicodeProperties.inc"
COMBINING_FILE = "basicutil/UnicodeCombining.inc"
WIDTH_FILE = "libzero/codepoint-width-table.inc"

# General categories that differ between 8.0 and later versions.
CATEGORY_AS_OF_8_0 = {
    0x166D: "Po",
    0x1885: "Lo",
    0x1886: "Lo",
    0x1CF2: "Mc",
    0x1CF3: "Mc",
    0x111C9: "Po",
}
for _cp in list(range(0x10D0, 0x10FB)) + list(range(0x10FD, 0x1100)):
    CATEGORY_AS_OF_8_0[_cp] = "Lo"

MAX_CODEPOINT = 0x10FFFF


class DataError(Exception):
    pass


# --------------------------------------------------------------------------
# Reading the database


def utf8bytes(cp):
    """The character's UTF-8 bytes as one integer, first byte most significant."""
    if cp < 0x80:
        return cp
    if cp < 0x800:
        return ((0xC0 | (cp >> 6)) << 8) | (0x80 | (cp & 0x3F))
    if cp < 0x10000:
        return (((0xE0 | (cp >> 12)) << 16) | ((0x80 | ((cp >> 6) & 0x3F)) << 8)
                | (0x80 | (cp & 0x3F)))
    return (((0xF0 | (cp >> 18)) << 24) | ((0x80 | ((cp >> 12) & 0x3F)) << 16)
            | ((0x80 | ((cp >> 6) & 0x3F)) << 8) | (0x80 | (cp & 0x3F)))


def parse_age_version(text):
    major, _, minor = text.strip().partition(".")
    return (int(major), int(minor or 0))


def read_ages(path):
    """Map of code point to (major, minor) of the version that assigned it."""
    ages = {}
    with open(path, encoding="utf-8") as f:
        for line in f:
            line = line.split("#", 1)[0].strip()
            if not line:
                continue
            cps, version = (field.strip() for field in line.split(";"))
            first, _, last = cps.partition("..")
            first = int(first, 16)
            last = int(last, 16) if last else first
            age = parse_age_version(version)
            for cp in range(first, last + 1):
                ages[cp] = age
    return ages


class Character:
    __slots__ = ("cp", "category", "decomposition", "decomposition_tag", "upper", "lower")

    def __init__(self, cp, category):
        self.cp = cp
        self.category = category
        self.decomposition = None
        self.decomposition_tag = None
        self.upper = None
        self.lower = None


class Database:
    """The 8.0 view of UnicodeData.txt.

    `chars` holds every assigned code point with ranges expanded; `lines`
    holds (code point, category) for the file's own lines, where a range
    contributes only its first and last code point.
    """

    def __init__(self, data_dir):
        self.ages = read_ages(os.path.join(data_dir, "DerivedAge.txt"))
        self.chars = {}
        self.lines = []
        self._read(os.path.join(data_dir, "UnicodeData.txt"))

    def in_target(self, cp):
        age = self.ages.get(cp)
        return age is not None and age <= TARGET_AGE

    def _category(self, cp, category):
        return CATEGORY_AS_OF_8_0.get(cp, category)

    def _read(self, path):
        records = []
        with open(path, encoding="utf-8") as f:
            for line in f:
                fields = line.rstrip("\n").split(";")
                if len(fields) != 15:
                    continue
                records.append(fields)

        i = 0
        while i < len(records):
            fields = records[i]
            cp = int(fields[0], 16)
            name = fields[1]
            category = fields[2]
            if name.endswith(", First>"):
                last_fields = records[i + 1]
                if not last_fields[1].endswith(", Last>"):
                    raise DataError("range at %04X has no Last line" % cp)
                last = int(last_fields[0], 16)
                i += 2
                kept = [c for c in range(cp, last + 1) if self.in_target(c)]
                if not kept:
                    continue
                # A range only ever grows at its end, so what 8.0 had is contiguous.
                if kept != list(range(kept[0], kept[-1] + 1)) or kept[0] != cp:
                    raise DataError("range at %04X is not a prefix in 8.0" % cp)
                for c in kept:
                    self.chars[c] = Character(c, self._category(c, category))
                self.lines.append((kept[0], self._category(kept[0], category)))
                self.lines.append((kept[-1], self._category(kept[-1], category)))
                continue
            i += 1
            if not self.in_target(cp):
                continue
            ch = Character(cp, self._category(cp, category))
            decomposition = fields[5].split()
            if decomposition and decomposition[0].startswith("<"):
                ch.decomposition_tag = decomposition.pop(0)
            if decomposition:
                targets = [int(x, 16) for x in decomposition]
                if all(self.in_target(t) for t in targets):
                    ch.decomposition = targets
            if fields[12]:
                target = int(fields[12], 16)
                if self.in_target(target):
                    ch.upper = target
            if fields[13]:
                target = int(fields[13], 16)
                if self.in_target(target):
                    ch.lower = target
            self.chars[cp] = ch
            self.lines.append((cp, ch.category))

    def canonical_decomposition(self, cp):
        """The full canonical decomposition, or None for a character without one."""
        ch = self.chars.get(cp)
        if ch is None or ch.decomposition is None or ch.decomposition_tag is not None:
            return None
        return self.expand(ch.decomposition)

    def expand(self, sequence):
        result = []
        for cp in sequence:
            sub = self.canonical_decomposition(cp)
            result.extend(sub if sub is not None else [cp])
        return result


# --------------------------------------------------------------------------
# Property table

FLAG_LETTER = 0x80000000
KIND_UPPER = 0x20000000
KIND_LOWER = 0x40000000
KIND_ALTERNATING = 0x60000000
FLAG_DIGIT = 0x10000000
FLAG_SPACE = 0x08000000
FLAG_CONTROL = 0x04000000
FLAG_PRINTABLE = 0x02000000
FLAG_PUNCTUATION = 0x01000000
CASE_MASK = 0x00FFFFFF

CATEGORY_FLAGS = {}
for _gc in ("Lu", "Ll", "Lt", "Lm", "Lo"):
    CATEGORY_FLAGS[_gc] = FLAG_LETTER | FLAG_PRINTABLE
for _gc in ("Nd", "Nl"):
    CATEGORY_FLAGS[_gc] = FLAG_DIGIT | FLAG_PRINTABLE
for _gc in ("Sc", "Sk", "Sm", "So", "No"):
    CATEGORY_FLAGS[_gc] = FLAG_PRINTABLE
for _gc in ("Pc", "Pd", "Ps", "Pe", "Pi", "Pf", "Po"):
    CATEGORY_FLAGS[_gc] = FLAG_PUNCTUATION | FLAG_PRINTABLE
for _gc in ("Cc", "Cf", "Cs"):
    CATEGORY_FLAGS[_gc] = FLAG_CONTROL
for _gc in ("Zs", "Zl", "Zp"):
    CATEGORY_FLAGS[_gc] = FLAG_SPACE
# Mn, Mc, Me, Co and unassigned code points carry no flags.

PROPERTY_SENTINEL = 0xFFFFFFFF


def property_word(db, cp):
    ch = db.chars.get(cp)
    if ch is None:
        return 0
    word = CATEGORY_FLAGS.get(ch.category, 0)
    if ch.category in ("Lu", "Lt"):
        other = ch.lower
        if other is None:
            return word | KIND_UPPER
        if other == cp + 1 and utf8bytes(cp) % 2 == 0:
            return word | KIND_ALTERNATING | 1
        return word | KIND_UPPER | mask_between(cp, other)
    if ch.category == "Ll":
        other = ch.upper
        if other is None:
            return word | KIND_LOWER
        if other == cp - 1 and utf8bytes(other) % 2 == 0:
            return word | KIND_ALTERNATING | 1
        return word | KIND_LOWER | mask_between(cp, other)
    return word


def mask_between(cp, other):
    mask = utf8bytes(cp) ^ utf8bytes(other)
    if mask & ~CASE_MASK:
        raise DataError("case mask of U+%04X does not fit in 24 bits" % cp)
    return mask


def build_properties(db):
    rows = []
    previous = None
    for cp in range(0x80, MAX_CODEPOINT + 1):
        word = property_word(db, cp)
        if word != previous:
            rows.append((utf8bytes(cp), word, cp))
            previous = word
    rows.append((PROPERTY_SENTINEL, 0, None))
    return rows


def render_properties(rows):
    out = [header_comment(
        "Character property runs, sorted by the utf8bytes value at which each run begins.",
        "Second word: flags in the top byte, case mask in the low 24 bits.",
        "%d rows; the last is the sentinel." % len(rows))]
    out.append("constexpr Utf8PropertyRow utf8_properties[] = {")
    for key, word, cp in rows:
        note = "U+%04X" % cp if cp is not None else "sentinel"
        out.append("  {0x%08Xu, 0x%08Xu},  // %s" % (key, word, note))
    out.append("};")
    return "\n".join(out) + "\n"


# --------------------------------------------------------------------------
# Display width table

WIDTH_SHIFT = 21
WIDTH_SENTINEL = 0x1FFFFF
ZERO_WIDTH_CATEGORIES = ("Mn", "Me", "Cf", "Cc", "Cs", "Co")

# Runs of width 2, [first, end). Used as given rather than derived from
# EastAsianWidth.txt, which disagrees with them in later versions.
WIDE_RUNS = [
    (0x1100, 0x1160), (0x2329, 0x232B), (0x2820, 0x2900), (0x2E80, 0x2E9A),
    (0x2E9B, 0x2EF4), (0x2F00, 0x2FD6), (0x2FF0, 0x2FFC), (0x3000, 0x302A),
    (0x302E, 0x303F), (0x3040, 0x3097), (0x309B, 0x312E), (0x3131, 0x318F),
    (0x3190, 0x31BB), (0x31C0, 0x31E4), (0x31F0, 0x321F), (0x3220, 0x3248),
    (0x3250, 0x32FF), (0x3300, 0x4DC0), (0x4E00, 0xA48D), (0xA490, 0xA4C7),
    (0xA960, 0xA97D), (0xAC00, 0xD7A4), (0xF900, 0xFB00), (0xFE10, 0xFE20),
    (0xFE30, 0xFE53), (0xFE54, 0xFE67), (0xFE68, 0xFE6C), (0xFF01, 0xFF61),
    (0xFFE0, 0xFFE7), (0x1B000, 0x1B002), (0x1F200, 0x1F203), (0x1F210, 0x1F23B),
    (0x1F240, 0x1F249), (0x1F250, 0x1F252), (0x20000, 0x2FFFE), (0x30000, 0x3FFFE),
]


def build_widths(db):
    widths = {}
    for first, end in WIDE_RUNS:
        for cp in range(first, end):
            widths[cp] = 2
    # Range lines count at their two ends only: the code points between them
    # are treated as unassigned.
    for cp, category in db.lines:
        if category in ZERO_WIDTH_CATEGORIES:
            widths[cp] = 0
    rows = []
    previous = None
    for cp in range(0x7F, MAX_CODEPOINT + 1):
        width = widths.get(cp, 1)
        if width != previous:
            rows.append((cp, width))
            previous = width
    rows.append((WIDTH_SENTINEL, 0))
    return rows


def render_widths(rows):
    out = [header_comment(
        "Display width runs, sorted by the code point at which each run begins.",
        "Each row: code point in the low %d bits, width (0, 1 or 2) above them." % WIDTH_SHIFT,
        "%d rows; the last is the sentinel." % len(rows))]
    out.append("constexpr uint32_t cpwidth_table[] = {")
    for cp, width in rows:
        note = "U+%04X" % cp if cp != WIDTH_SENTINEL else "sentinel"
        out.append("  0x%08Xu,  // %s width %d" % ((width << WIDTH_SHIFT) | cp, note, width))
    out.append("};")
    return "\n".join(out) + "\n"


# --------------------------------------------------------------------------
# Combining marks

# The marks the combiner recognises, as (code point, bit). Marks that are
# canonically equivalent share a bit.
COMBINER_MARKS = [
    (0x0300, 0), (0x0301, 1), (0x0302, 2), (0x0303, 3), (0x0304, 7), (0x0306, 8),
    (0x0307, 10), (0x0308, 4), (0x0309, 47), (0x030A, 5), (0x030B, 12), (0x030C, 11),
    (0x030D, 16), (0x030F, 14), (0x0311, 15), (0x0313, 48), (0x0314, 49), (0x031B, 13),
    (0x0323, 41), (0x0324, 46), (0x0325, 40), (0x0327, 6), (0x0328, 9), (0x032D, 43),
    (0x032E, 45), (0x0330, 44), (0x0331, 42), (0x0340, 0), (0x0341, 1), (0x0342, 50),
    (0x0343, 48), (0x0345, 51), (0x05B7, 54), (0x05B8, 58), (0x05B9, 59), (0x05BC, 57),
    (0x05BF, 60), (0x05C1, 55), (0x05C2, 56), (0x093C, 17), (0x09BC, 18), (0x09BE, 19),
    (0x09D7, 20), (0x0A3C, 21), (0x0B3C, 25), (0x0B3E, 23), (0x0B56, 22), (0x0B57, 24),
    (0x0BBE, 27), (0x0BD7, 26), (0x0C56, 28), (0x0CC2, 31), (0x0CD5, 29), (0x0CD6, 30),
    (0x0D3E, 32), (0x0D57, 33), (0x0E32, 34), (0x0EB2, 35), (0x0F71, 38), (0x0F80, 39),
    (0x0FB5, 37), (0x0FB7, 36), (0x3099, 52), (0x309A, 53),
]

# Composites whose decomposition the combiner predates; they get no rule.
COMBINER_LEFT_OUT = {0x01F8, 0x01F9, 0x021E, 0x021F, 0x0400, 0x040D, 0x0450, 0x045D,
                     0x04EC, 0x04ED, 0x0A33, 0x0A36}
COMBINER_LEFT_OUT.update(range(0x0226, 0x0234))

# In the Greek block, acute stands for tonos, which the combiner spells as the
# vertical line above.
TONOS_RANGE = (0x0344, 0x03FF)
TONOS_BIT = 16

# Composites whose base is not the first character of their decomposition.
COMBINER_BASE_OVERRIDES = {
    0x04DA: 0x018F, 0x04DB: 0x0259, 0x04EA: 0x019F, 0x04EB: 0x0275,
    0x1FF4: 0x03BF,
}

# Decompositions that begin with this vowel sign take the next character as base.
LEADING_MARK_TAKES_NEXT_BASE = 0x0F71

# Rules for characters without a canonical decomposition: spelled out here, or
# taken from the character's compatibility decomposition.
COMBINER_EXTRA_SEQUENCES = {
    0x0310: [0x0306, 0x0307],
    0x09B0: [0x09AC, 0x09BC],
    0x0A5C: [0x0A21, 0x0A3C],
    0x0B5F: [0x0B2F, 0x0B3C],
}
COMBINER_FROM_COMPATIBILITY = (0x0E33, 0x0EB3, 0x0F77, 0x0F79)


def combiner_rule(composite, sequence, mark_bits):
    """(key, base) for a fully decomposed sequence, or None if it has no rule."""
    if sequence[0] == LEADING_MARK_TAKES_NEXT_BASE and len(sequence) > 1:
        base = sequence[1]
        marks = sequence[:1] + sequence[2:]
    else:
        base = sequence[0]
        marks = sequence[1:]
    if not marks or any(m not in mark_bits for m in marks):
        return None
    key = 0
    for m in marks:
        bit = mark_bits[m]
        if m == 0x0301 and TONOS_RANGE[0] <= composite <= TONOS_RANGE[1]:
            bit = TONOS_BIT
        key |= 1 << bit
    base = COMBINER_BASE_OVERRIDES.get(composite, base)
    return key, base


def build_combining(db):
    mark_bits = dict(COMBINER_MARKS)
    candidates = []
    for cp in sorted(db.chars):
        if cp in COMBINER_LEFT_OUT:
            continue
        sequence = db.canonical_decomposition(cp)
        if sequence is not None:
            candidates.append((cp, sequence))
    for cp, sequence in COMBINER_EXTRA_SEQUENCES.items():
        if cp not in db.chars or db.canonical_decomposition(cp) is not None:
            raise DataError("U+%04X is not the character the extra rule expects" % cp)
        candidates.append((cp, db.expand(sequence)))
    for cp in COMBINER_FROM_COMPATIBILITY:
        ch = db.chars.get(cp)
        if ch is None or ch.decomposition_tag != "<compat>" or ch.decomposition is None:
            raise DataError("U+%04X has no compatibility decomposition" % cp)
        candidates.append((cp, db.expand(ch.decomposition)))

    rules = {}
    for cp, sequence in candidates:
        rule = combiner_rule(cp, sequence, mark_bits)
        if rule is None:
            continue
        # Of two composites with the same marks on the same base, the lower wins.
        if rule not in rules or cp < rules[rule]:
            rules[rule] = cp

    marks = sorted((utf8bytes(cp), 1 << bit, cp) for cp, bit in COMBINER_MARKS)
    by_key = {}
    for (key, base), composite in rules.items():
        by_key.setdefault(key, []).append((utf8bytes(base), utf8bytes(composite), base, composite))
    keys = [(key, sorted(by_key[key])) for key in sorted(by_key)]
    return marks, keys


def key_bits(key):
    return "+".join(str(bit) for bit in range(64) if key >> bit & 1)


def render_combining(marks, keys):
    nrules = sum(len(rules) for _, rules in keys)
    out = [header_comment(
        "Combining marks and the composites they form with a base character.",
        "utf8_combiner_marks: %d marks sorted by utf8bytes, each with its bit." % len(marks),
        "utf8_combiner_rules: %d rules (base, replacement), grouped by key and" % nrules,
        "sorted by base within a key; utf8_combiners: %d keys, each an OR of mark" % len(keys),
        "bits, sorted by key, with the slice of rules that belongs to it.")]
    out.append("constexpr Utf8CombinerMark utf8_combiner_marks[] = {")
    for u, flag, cp in marks:
        out.append("  {0x%08Xu, 0x%016Xull},  // U+%04X bit %d"
                   % (u, flag, cp, flag.bit_length() - 1))
    out.append("};")
    out.append("")
    out.append("constexpr Utf8CombinerRule utf8_combiner_rules[] = {")
    for key, rules in keys:
        out.append("  // key %s" % key_bits(key))
        for base_u, comp_u, base, comp in rules:
            out.append("  {0x%08Xu, 0x%08Xu},  // U+%04X -> U+%04X" % (base_u, comp_u, base, comp))
    out.append("};")
    out.append("")
    out.append("constexpr Utf8Combiner utf8_combiners[] = {")
    offset = 0
    for key, rules in keys:
        out.append("  {0x%016Xull, utf8_combiner_rules + %d, %d},  // %s"
                   % (key, offset, len(rules), key_bits(key)))
        offset += len(rules)
    out.append("};")
    return "\n".join(out) + "\n"


# --------------------------------------------------------------------------
# Output


def header_comment(*lines):
    text = [
        "// Generated by %s from the Unicode 8.0.0 character data." % SCRIPT_NAME,
        "// Do not edit by hand: change the generator and run it again.",
        "//",
    ]
    text.extend("// " + line for line in lines)
    text.append("")
    return "\n".join(text)


def generate(data_dir):
    db = Database(data_dir)
    marks, keys = build_combining(db)
    return {
        PROPERTIES_FILE: render_properties(build_properties(db)),
        COMBINING_FILE: render_combining(marks, keys),
        WIDTH_FILE: render_widths(build_widths(db)),
    }


def check(outputs, root):
    stale = 0
    for name, text in outputs.items():
        path = os.path.join(root, name)
        try:
            with open(path, encoding="utf-8") as f:
                committed = f.read()
        except FileNotFoundError:
            print("%s: missing" % name)
            stale += 1
            continue
        if committed == text:
            print("%s: up to date" % name)
            continue
        stale += 1
        diff = list(difflib.unified_diff(committed.splitlines(), text.splitlines(),
                                         "committed/" + name, "generated/" + name, lineterm="", n=0))
        changed = sum(1 for line in diff if line[:1] in "+-" and line[:3] not in ("+++", "---"))
        print("%s: differs from the generated table (%d lines changed)" % (name, changed))
        for line in diff[:40]:
            print("    " + line)
        if len(diff) > 40:
            print("    ...")
    return 1 if stale else 0


def main(argv):
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser(description="Generate the Unicode 8.0 tables.")
    parser.add_argument("--data", default=DEFAULT_DATA_DIR,
                        help="directory holding UnicodeData.txt and DerivedAge.txt")
    parser.add_argument("--root", default=os.path.normpath(os.path.join(here, "..", "..")),
                        help="source tree to write to or check against")
    parser.add_argument("--check", action="store_true",
                        help="compare the committed tables with a fresh generation")
    args = parser.parse_args(argv)

    if not os.path.isfile(os.path.join(args.data, "UnicodeData.txt")):
        if args.check:
            print("skipped: unicode-data not installed (no UnicodeData.txt in %s)" % args.data)
            return 0
        print("error: no UnicodeData.txt in %s" % args.data, file=sys.stderr)
        return 2

    try:
        outputs = generate(args.data)
    except (DataError, OSError, ValueError) as e:
        print("error: %s" % e, file=sys.stderr)
        return 2

    if args.check:
        return check(outputs, args.root)
    for name, text in outputs.items():
        path = os.path.join(args.root, name)
        with open(path, "w", encoding="utf-8", newline="\n") as f:
            f.write(text)
        print("wrote %s" % name)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
