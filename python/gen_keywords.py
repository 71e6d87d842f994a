#!/usr/bin/env python3
"""Writes the keyword-to-tag table of the Python package from the library's DICOM dictionary.

Usage: gen_keywords.py DICTIONARY.tsv OUT.py
An x in a tag (a repeating group or element range) stands for 0, the family's first member.
"""
import sys


def main(table, out):
    rows = []
    with open(table, encoding="utf-8") as f:
        for line in f:
            if line.startswith("#") or line.startswith("tag\t"):
                continue
            fields = line.rstrip("\n").split("\t")
            if len(fields) < 4 or not fields[3]:
                continue
            rows.append((fields[3], int(fields[0].replace("x", "0"), 16)))
    with open(out, "w", encoding="utf-8") as f:
        f.write("# Generated from the DICOM dictionary table by gen_keywords.py. Do not edit.\n")
        f.write("KEYWORDS = {\n")
        for keyword, tag in rows:
            f.write(f"    {keyword!r}: 0x{tag:08X},\n")
        f.write("}\n")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
