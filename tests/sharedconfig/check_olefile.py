"""Checks a shared configuration file with olefile, a compound-file reader
that has nothing in common with the one that wrote the file.

Every top-level stream must hold one complete record, and every top-level
storage the same record in its streams "record" and "copy" (layout in
sharedtest.h: "KYR1", writer, sequence, payload length, payload). An element
may be empty only where a failed acquisition put its empty copy back: after
acquisition failures (--failures N, N > 0) or kills (--after-kills), which
also tolerate elements that a killed write-back left half-written.
"""
import argparse
import struct
import sys

import olefile


def record_kind(data):
    if not data:
        return "empty"
    if len(data) < 16 or data[:4] != b"KYR1":
        return "torn"
    writer, sequence, length = struct.unpack_from("<III", data, 4)
    if len(data) != 16 + length:
        return "torn"
    payload = bytes((writer * 31 + sequence * 7 + i) & 0xFF for i in range(length))
    return "valid" if data[16:] == payload else "torn"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("file")
    parser.add_argument("--failures", type=int, default=0)
    parser.add_argument("--after-kills", action="store_true")
    args = parser.parse_args()

    # Anything olefile finds incorrect raises; lesser findings are listed.
    ole = olefile.OleFileIO(args.file, raise_defects=olefile.DEFECT_INCORRECT)
    problems = ["olefile: %s" % (issue,) for issue in ole.parsing_issues]
    counts = {"valid": 0, "empty": 0, "torn": 0}
    for path in ole.listdir(streams=True, storages=True):
        if len(path) != 1:
            continue  # inside a storage element: read with it
        name = path[0]
        if ole.get_type(path) == olefile.STGTY_STREAM:
            data = ole.openstream(path).read()
            if len(data) != ole.get_size(path):
                problems.append("%s: read %d of %d bytes" % (name, len(data), ole.get_size(path)))
            kind = record_kind(data)
        else:
            inside = {p[1]: ole.openstream(p).read() for p in ole.listdir(streams=True) if len(p) == 2 and p[0] == name}
            if not inside:
                kind = "empty"
            elif set(inside) == {"record", "copy"} and inside["record"] == inside["copy"]:
                kind = record_kind(inside["record"])
                kind = "torn" if kind == "empty" else kind
            else:
                kind = "torn"
        counts[kind] += 1
    ole.close()

    print("%s: %d elements, %d valid, %d empty, %d torn" % (args.file, sum(counts.values()), counts["valid"],
                                                             counts["empty"], counts["torn"]))
    if counts["empty"] and not (args.failures or args.after_kills):
        problems.append("empty elements without any failed acquisition")
    if counts["torn"] and not args.after_kills:
        problems.append("elements that are not one complete write")
    if not counts["valid"]:
        problems.append("no element holds a record")
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
