#!/usr/bin/env python3
"""What a registration wrote, read from a Wine prefix's registry before and after.

The installer writes the registry through its own tables instead of calling
DllRegisterServer, and those tables are made from the DLL's own registration
so that the two can never drift apart:

  harvest.py wix <system.reg before> <system.reg after> <x64|x86> <dll path> <out.wxs>
      the WiX fragment of one architecture: the DLL and every class key the
      registration wrote, the DLL's path and folder turned into references
  harvest.py keys <system.reg before> <system.reg after> [<folder>...]
      every class key and value that differs, one per line, with the given
      install folders shown as <DIR>: two registrations compare with diff

Wine keeps the machine's registry in system.reg: "[key] time" lines, then one
value per line ("name"=data, @ for the default value), keys relative to
HKEY_LOCAL_MACHINE. A 32-bit program's class keys live under
Software\\Classes\\Wow6432Node.
"""
import hashlib
import re
import sys
from xml.sax.saxutils import quoteattr

CLASSES = "software\\classes\\"
# The installer's own bookkeeping under the class keys is not the library's.
IGNORED = ("software\\classes\\installer\\",)
WOW64 = "wow6432node\\"

# Per architecture: the GUIDs of its components (fixed: the same components
# in every version), the one with the DLL and the keys of its own registry
# view, and the one with the keys that its registration writes into the other
# view; whether the DLL is 64-bit; and the folder that the product defines.
ARCHES = {
    "x64": ("{9A0C6B1E-5E0B-4C57-9B1B-2F3F6A1C7D41}", "{C41F0A7E-2B6D-4E93-8F15-6D0A9B3C7E28}", True,
            "KYUTILSDIR64"),
    "x86": ("{3E7D2C55-8F4A-4B0E-A6B9-7C1D5E2F8A63}", "{8D2B6E14-7C3F-4A05-B9E1-2F6C8A4D0B97}", False,
            "KYUTILSDIR32"),
}


def unescape(text):
    """Undoes Wine's escaping of key names and string data."""
    out, i = [], 0
    while i < len(text):
        c = text[i]
        if c != "\\" or i + 1 == len(text):
            out.append(c)
            i += 1
            continue
        n = text[i + 1]
        if n == "x":
            m = re.match(r"[0-9a-fA-F]{1,4}", text[i + 2:])
            out.append(chr(int(m.group(0), 16)))
            i += 2 + len(m.group(0))
            continue
        out.append({"n": "\n", "r": "\r", "t": "\t", "0": "\0"}.get(n, n))
        i += 2
    return "".join(out)


def parse_string(data):
    """Parses one quoted string; returns (text, rest)."""
    m = re.match(r'"((?:[^"\\]|\\.)*)"(.*)$', data)
    if not m:
        raise ValueError("not a string: " + data)
    return unescape(m.group(1)), m.group(2)


def parse_value(data):
    """(type, data) of a value's data field."""
    if data.startswith('"'):
        return "sz", parse_string(data)[0]
    if data.startswith('str(2):'):
        return "expand_sz", parse_string(data[7:])[0]
    if data.startswith("dword:"):
        return "dword", int(data[6:], 16)
    return "other", data


def read_registry(path):
    """{lower-case key: (key, {lower-case value name: (name, type, data)})}"""
    keys, values = {}, None
    lines = open(path, encoding="utf-8", errors="surrogateescape").read().split("\n")
    i = 0
    while i < len(lines):
        line = lines[i]
        # Binary data runs on over lines ending in a backslash.
        while line.endswith("\\") and not line.startswith("[") and i + 1 < len(lines):
            i += 1
            line = line[:-1] + lines[i].strip()
        i += 1
        if line.startswith("["):
            key = unescape(line[1:line.rindex("]")])
            values = {}
            keys[key.lower()] = (key, values)
        elif values is not None and (line.startswith('"') or line.startswith("@=")):
            if line.startswith("@="):
                name, rest = "", line[1:]
            else:
                name, rest = parse_string(line)
            kind, data = parse_value(rest[1:])
            values[name.lower()] = (name, kind, data)
    return keys


def changes(before_path, after_path):
    """Class keys of `after` that `before` lacks or holds otherwise, with their
    values that are new or changed: [(key, [(name, type, data)...])]"""
    before, after = read_registry(before_path), read_registry(after_path)
    out = []
    for low, (key, values) in after.items():
        if not low.startswith(CLASSES) or low.startswith(IGNORED):
            continue
        old = before.get(low, (key, {}))[1]
        changed = [v for n, v in values.items() if old.get(n) != v]
        if low not in before or changed:
            out.append((key, sorted(changed, key=lambda v: v[0].lower())))
    gone = [before[low][0] for low in before if low.startswith(CLASSES) and not low.startswith(IGNORED)
            and low not in after]
    return sorted(out, key=lambda kv: kv[0].lower()), sorted(gone, key=str.lower)


def keys_command(before_path, after_path, folders):
    def shown(text):
        for folder in folders:
            text = re.sub(re.escape(folder.rstrip("\\")) + r"\\?", lambda m: "<DIR>\\", text, flags=re.I)
        return text

    added, gone = changes(before_path, after_path)
    for key, values in added:
        print(shown("[%s]" % key))
        for name, kind, data in values:
            print(shown("  %s = %s:%s" % (name or "@", kind, data)))
    for key in gone:
        print("removed [%s]" % key)


def formatted(text):
    """Text as the installer's formatted strings take it: brackets escaped."""
    return re.sub(r"[\[\]]", lambda m: "[\\" + m.group(0) + "]", text)


def registry_rows(key, values, file_id, dll_path, folder_id):
    """(name, type, value) rows of one key, the DLL's path and folder turned
    into references to the installed file and folder."""
    folder = dll_path.rsplit("\\", 1)[0]
    for name, kind, data in values:
        if kind == "dword":
            yield name, "integer", str(data - (1 << 32) if data >= 1 << 31 else data)
            continue
        if kind not in ("sz", "expand_sz"):
            sys.exit("harvest.py: %s\\%s: a value of a kind the installer tables do not take here" % (key, name))
        if data.startswith("#") or (not data and not name):
            sys.exit("harvest.py: %s\\%s: a string the installer would read otherwise: %r" % (key, name, data))
        value = formatted(data)
        value = re.sub(re.escape(formatted(dll_path)), "[#%s]" % file_id, value, flags=re.I)
        value = re.sub(re.escape(formatted(folder)) + r"\\?", "[%s]" % folder_id, value, flags=re.I)
        if folder.lower() in value.lower():
            sys.exit("harvest.py: %s\\%s: names the folder in a way not understood: %r" % (key, name, data))
        yield name, "string" if kind == "sz" else "expandable", value


def wix_command(before_path, after_path, arch, dll_path, out_path):
    guid, other_guid, win64, folder_id = ARCHES[arch]
    file_id = "KyUtilsDll" + arch
    added, gone = changes(before_path, after_path)
    if gone:
        sys.exit("harvest.py: the registration removed keys: " + ", ".join(gone))
    lows = [key.lower() for key, _ in added]
    # Rows of the 32-bit view (what the registration wrote under Wow6432Node)
    # and of the 64-bit one, which holds the keys that both views share
    # (ProgIDs, the type library's): written by a 64-bit component, as Wine's
    # installer would put a 32-bit component's ProgIDs into the 32-bit view.
    # Each key is named as a program of its view names it: the installer
    # redirects a 32-bit component's keys itself.
    views = {True: [], False: []}
    for key, values in added:
        name = key[len(CLASSES):]
        view64 = not name.lower().startswith(WOW64)
        if not view64:
            name = name[len(WOW64):]
        rows = list(registry_rows(key, values, file_id, dll_path, folder_id))
        if not values and not any(other.startswith(key.lower() + "\\") for other in lows):
            rows = [("*", "string", "")]  # an empty key of its own, not just the parent of new keys
        views[view64] += [(name, row) for row in rows]

    def component(out, component_id, component_guid, view64, rows, with_file):
        out.write('      <Component Id="%s" Guid="%s" Win64="%s">\n' % (
            component_id, component_guid, "yes" if view64 else "no"))
        if with_file:
            out.write('        <File Id="%s" Name="kyutils.dll" Source="$(var.KyUtilsSdk)/bin/%s/kyutils.dll" '
                      'KeyPath="yes"/>\n' % (file_id, arch))
        for key, (name, kind, value) in rows:
            # Both architectures write the shared keys (ProgIDs, the type
            # library's): each row needs an identifier of its own.
            row_id = "Reg%s_%s" % (component_id[7:], hashlib.sha1(
                ("%s\n%s" % (key, name)).lower().encode()).hexdigest()[:24])
            out.write("        <RegistryValue Id=\"%s\" Root=\"HKCR\" Key=%s%s Type=\"%s\" Value=%s/>\n" % (
                row_id, quoteattr(formatted(key)), " Name=%s" % quoteattr(formatted(name)) if name else "", kind,
                quoteattr(value)))
        out.write("      </Component>\n")

    with open(out_path, "w", encoding="utf-8", newline="\n") as out:
        out.write('<?xml version="1.0" encoding="utf-8"?>\n')
        out.write("<!-- KyUtils, %s: the DLL and the registry that its own registration writes, harvested\n"
                  "     from it. The product defines the folder %s; $(var.KyUtilsSdk) is the\n"
                  "     folder of the SDK. -->\n" % (arch, folder_id))
        out.write('<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">\n  <Fragment>\n')
        out.write('    <ComponentGroup Id="KyUtils.%s" Directory="%s">\n' % (arch, folder_id))
        component(out, "KyUtils%s" % arch, guid, win64, views[win64], True)
        if views[not win64]:
            component(out, "KyUtils%sView%s" % (arch, "32" if win64 else "64"), other_guid, not win64,
                      views[not win64], False)
        out.write("    </ComponentGroup>\n  </Fragment>\n</Wix>\n")


if __name__ == "__main__":
    if len(sys.argv) >= 4 and sys.argv[1] == "keys":
        keys_command(sys.argv[2], sys.argv[3], sys.argv[4:])
    elif len(sys.argv) == 7 and sys.argv[1] == "wix" and sys.argv[4] in ARCHES:
        wix_command(*sys.argv[2:])
    else:
        sys.exit(__doc__)
