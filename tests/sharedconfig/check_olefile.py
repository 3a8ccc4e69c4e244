"""Checks the files that the cross-process runs leave with olefile, a reader
that shares nothing with the writer: each top-level element must be a stream
holding one complete record (layout in sharedtest.h), or an empty one."""
import struct
import sys

import olefile


def element_kind(ole, path):
    data = ole.openstream(path).read() if ole.get_type(path) == olefile.STGTY_STREAM else None
    if data is None or len(data) != ole.get_size(path) or (data and (len(data) < 16 or data[:4] != b"KYR1")):
        return "torn"
    if not data:
        return "empty"
    writer, sequence, length = struct.unpack_from("<III", data, 4)
    return "valid" if data[16:] == bytes((writer * 31 + sequence * 7 + i) & 0xFF for i in range(length)) else "torn"


def check(file):
    # Anything olefile finds incorrect raises; lesser findings fail too.
    ole = olefile.OleFileIO(file, raise_defects=olefile.DEFECT_INCORRECT)
    kinds = [element_kind(ole, path) for path in ole.listdir(streams=True, storages=True) if len(path) == 1]
    print("%s: %d valid, %d empty, %d torn, olefile findings %s" %
          (file, kinds.count("valid"), kinds.count("empty"), kinds.count("torn"), ole.parsing_issues))
    ok = not ole.parsing_issues and "torn" not in kinds and "valid" in kinds
    ole.close()
    return ok


sys.exit(0 if all([check(file) for file in sys.argv[1:]]) else 1)
