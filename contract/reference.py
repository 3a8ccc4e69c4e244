#!/usr/bin/env python3
"""Writes the reference of the public contract as Markdown.

    reference.py <kyutils.idl> <messages.mc> <out.md> <script.rgs>...

Reads the interface definitions (the part of MIDL that kyutils.idl uses), the
message table and the registry scripts, and lists every class, interface,
enumeration, record and result code in the order of its source. The output
depends on the contents of those files only, so a committed copy can be held
against a fresh one. Every method and property must have a help string:
object browsers show it and the reference is made of it, so one missing
fails the run, as does anything in the sources that this script cannot read.
"""

import re
import sys

TYPELIB_SYMBOL = "KY_TYPELIB"  # defined while widl writes the type library
DISPIDS = {"DISPID_VALUE": 0, "DISPID_UNKNOWN": -1, "DISPID_PROPERTYPUT": -3, "DISPID_NEWENUM": -4,
           "DISPID_EVALUATE": -5}
OPEN, CLOSE = ("(", "["), (")", "]")


class ContractError(Exception):
    pass


# --- Interface definitions ---------------------------------------------------

def strip_comments(text):
    """Blanks out comments, keeping line breaks and string literals."""
    def blank(match):
        return match.group(0) if match.group(0)[0] == '"' else re.sub(r"[^\n]", " ", match.group(0))
    return re.sub(r'"(?:\\.|[^"\\])*"|//[^\n]*|/\*.*?\*/', blank, text, flags=re.S)


def preprocess(text, defined):
    """Resolves #ifdef, #ifndef, #else, #endif and object-like #defines."""
    macros, lines, stack = {}, [], []
    for number, line in enumerate(text.split("\n"), 1):
        directive = re.match(r"\s*#\s*(\w+)\s*(.*?)\s*$", line)
        active = all(stack)
        if not directive:
            lines.append(line if active else "")
            continue
        word, rest = directive.groups()
        if word in ("ifdef", "ifndef"):
            stack.append((rest in defined or rest in macros) == (word == "ifdef"))
        elif word == "else" and stack:
            stack[-1] = not stack[-1]
        elif word == "endif" and stack:
            stack.pop()
        elif word == "define" and rest:
            if active:
                name, _, value = rest.partition(" ")
                macros[name] = value.strip()
        else:
            raise ContractError("line %d: cannot read #%s %s" % (number, word, rest))
        lines.append("")
    if stack:
        raise ContractError("an #ifdef without its #endif")
    body = "\n".join(lines)
    for name, value in macros.items():
        body = re.sub(r"\b%s\b" % re.escape(name), value, body)
    return body


TOKEN = re.compile(r'\s*("(?:\\.|[^"\\])*"'                              # string
                   r'|[0-9A-Fa-f]{8}(?:-[0-9A-Fa-f]{4}){3}-[0-9A-Fa-f]{12}'  # GUID
                   r'|[A-Za-z_]\w*|-?(?:0[xX][0-9A-Fa-f]+|\d+(?:\.\d+)?)|\S)')


def tokenize(text):
    """(token, line) pairs."""
    tokens, pos, line = [], 0, 1
    for match in TOKEN.finditer(text):
        line += text.count("\n", pos, match.start(1))
        tokens.append((match.group(1), line))
        pos = match.start(1)
    return tokens


def join(tokens):
    """Tokens as C writes them: `unsigned long*`, `size_is(celt)`, `length_is(*pceltFetched)`."""
    text = " ".join(tokens)
    text = re.sub(r"\s*([*(),\]])", r"\1", text)
    text = re.sub(r"([(\[*])\s+", r"\1", text)
    return text.replace(",", ", ")


class Parser:
    def __init__(self, tokens):
        self.tokens = tokens
        self.pos = 0

    def peek(self, ahead=0):
        index = self.pos + ahead
        return self.tokens[index][0] if index < len(self.tokens) else None

    def next(self):
        token = self.peek()
        if token is None:
            self.fail("unexpected end")
        self.pos += 1
        return token

    def expect(self, token):
        if self.peek() != token:
            self.fail("expected %r, found %r" % (token, self.peek()))
        return self.next()

    def fail(self, message):
        line = self.tokens[min(self.pos, len(self.tokens) - 1)][1] if self.tokens else 0
        raise ContractError("line %d: %s" % (line, message))

    def until(self, *stops):
        """The tokens up to the first of `stops` outside parentheses and brackets."""
        depth, taken = 0, []
        while depth or self.peek() not in stops:
            token = self.next()
            depth += (token in OPEN) - (token in CLOSE)
            taken.append(token)
        return taken

    def attributes(self):
        """[a, b(x), ...] as a dict, in order, of name to argument text (None without one)."""
        found = {}
        if self.peek() != "[":
            return found
        self.next()
        while True:
            name = self.next()
            argument = None
            if self.peek() == "(":
                self.next()
                taken = self.until(")")
                argument = taken[0] if len(taken) == 1 else join(taken)
                self.expect(")")
            found[name] = argument
            if self.next() == "]":
                return found
            if self.tokens[self.pos - 1][0] != ",":
                self.fail("expected ',' or ']' in attributes")

    def statements(self, in_library=False):
        while self.peek() is not None and self.peek() != "}":
            attrs = self.attributes()
            keyword = self.next()
            if keyword in ("import", "importlib"):
                self.until(";")
            elif keyword in ("interface", "dispinterface"):
                yield self.interface(keyword, attrs, in_library)
            elif keyword == "coclass":
                yield self.coclass(attrs)
            elif keyword == "typedef":
                yield self.typedef(in_library)
            elif keyword == "library":
                yield {"kind": "library", "name": self.next(), "attrs": attrs}
                self.expect("{")
                yield from self.statements(in_library=True)
                self.expect("}")
            else:
                self.fail("unexpected %r" % keyword)
            if self.peek() == ";":
                self.next()

    def interface(self, keyword, attrs, in_library):
        name = self.next()
        if self.peek() == ";":  # a forward declaration
            return {"kind": "reference", "name": name, "library": in_library}
        base = None
        if self.peek() == ":":
            self.next()
            base = self.next()
        self.expect("{")
        members, section = [], "methods"
        while self.peek() != "}":
            if self.peek() in ("properties", "methods") and self.peek(1) == ":":
                section = self.next()
                self.next()
                continue
            member_attrs = self.attributes()
            declaration = self.until(";")
            self.expect(";")
            members.append(self.member(member_attrs, declaration, section))
        self.expect("}")
        return {"kind": keyword, "name": name, "attrs": attrs, "base": base, "members": members,
                "library": in_library}

    def member(self, attrs, tokens, section):
        if section == "properties":  # a dispinterface's property: type and name
            return {"name": tokens[-1], "attrs": attrs, "kind": "property",
                    "params": [{"attrs": {}, "type": join(tokens[:-1]), "name": ""}]}
        if len(tokens) < 4 or tokens[2] != "(" or tokens[-1] != ")":
            self.fail("cannot read the member %s" % join(tokens))
        kinds = [("propget", "property get"), ("propput", "property put"), ("propputref", "property putref")]
        kind = next((text for attr, text in kinds if attr in attrs), "method")
        params = []
        for piece in split_top(tokens[3:-1]):
            if piece in ([], ["void"]):
                continue
            sub = Parser([(token, self.tokens[self.pos - 1][1]) for token in piece])
            param_attrs = sub.attributes()
            rest = piece[sub.pos:]
            if len(rest) < 2:
                self.fail("cannot read the parameter %s" % join(piece))
            params.append({"attrs": param_attrs, "type": join(rest[:-1]), "name": rest[-1]})
        return {"name": tokens[1], "attrs": attrs, "kind": kind, "params": params}

    def coclass(self, attrs):
        name = self.next()
        self.expect("{")
        interfaces = []
        while self.peek() != "}":
            member_attrs = self.attributes()
            if self.next() not in ("interface", "dispinterface"):
                self.fail("expected an interface of coclass %s" % name)
            interfaces.append({"name": self.next(), "attrs": member_attrs})
            self.expect(";")
        self.expect("}")
        return {"kind": "coclass", "name": name, "attrs": attrs, "interfaces": interfaces}

    def typedef(self, in_library):
        attrs = self.attributes()
        what = self.next()
        if what not in ("enum", "struct"):
            self.fail("only enum and struct typedefs are known")
        tag = self.next() if self.peek() != "{" else None
        self.expect("{")
        items, following = [], 0
        while self.peek() != "}":
            piece = self.until(",", "}") if what == "enum" else self.until(";")
            if what == "enum":
                value = join(piece[2:]) if len(piece) > 2 else str(following)
                if not re.match(r"-?(0[xX][0-9A-Fa-f]+|\d+)$", value):
                    self.fail("cannot read the value of %s" % piece[0])
                following = int(value, 0) + 1
                items.append({"name": piece[0], "value": value})
            else:
                items.append({"name": piece[-1], "type": join(piece[:-1])})
            if self.peek() in (",", ";"):
                self.next()
        self.expect("}")
        name = self.next() if self.peek() != ";" else tag
        return {"kind": what, "name": name, "attrs": attrs, "items": items, "library": in_library}


def split_top(tokens):
    """Splits at the commas outside parentheses and brackets."""
    pieces, depth = [[]], 0
    for token in tokens:
        if token == "," and depth == 0:
            pieces.append([])
            continue
        depth += (token in OPEN) - (token in CLOSE)
        pieces[-1].append(token)
    return pieces


def read_idl(path, defined):
    with open(path, encoding="utf-8") as f:
        text = f.read()
    try:
        parser = Parser(tokenize(preprocess(strip_comments(text), defined)))
        statements = list(parser.statements())
        if parser.peek() is not None:
            parser.fail("unexpected %r" % parser.peek())
    except ContractError as error:
        raise ContractError("%s: %s" % (path, error))
    return statements


def unquote(text):
    """The text of a string literal, its escapes resolved."""
    return re.sub(r"\\(.)", r"\1", text[1:-1]) if text and text.startswith('"') else text


# --- Message table -----------------------------------------------------------

def read_messages(path):
    with open(path, encoding="utf-8") as f:
        lines = [line.rstrip("\r\n") for line in f if not line.startswith(";")]
    first = next((n for n, line in enumerate(lines) if re.match(r"\s*MessageId\s*=", line)), len(lines))
    header = " ".join(lines[:first])
    names = {}
    for kind in ("SeverityNames", "FacilityNames"):
        match = re.search(kind + r"\s*=\s*\(([^)]*)\)", header)
        names[kind] = {name: int(value, 0) for name, value in
                       re.findall(r"(\w+)\s*=\s*(0x[0-9A-Fa-f]+|\d+)", match.group(1) if match else "")}
    messages, fields, last_id, n = [], {}, -1, first
    while n < len(lines):
        key, _, value = lines[n].partition("=")
        key = key.strip()
        if key in ("MessageId", "Severity", "Facility", "SymbolicName"):
            fields[key] = value.strip()
        elif key == "Language":
            text = []
            n += 1
            while n < len(lines) and lines[n].strip() != ".":
                text.append(lines[n].strip())
                n += 1
            severity, facility = fields.get("Severity"), fields.get("Facility")
            if severity not in names["SeverityNames"] or facility not in names["FacilityNames"]:
                raise ContractError("%s: message %s without a known severity or facility" %
                                    (path, fields.get("SymbolicName")))
            last_id = int(fields["MessageId"], 0) if fields.get("MessageId") else last_id + 1
            code = names["SeverityNames"][severity] << 30 | names["FacilityNames"][facility] << 16 | last_id
            messages.append({"name": fields.get("SymbolicName", ""), "code": code, "severity": severity,
                             "text": " ".join(text)})
            fields = {}
        elif lines[n].strip():
            raise ContractError("%s: cannot read %r" % (path, lines[n]))
        n += 1
    return messages


# --- Registry scripts --------------------------------------------------------

def read_script(path):
    """CLSID to the ProgIDs and threading model that a registry script writes for it."""
    with open(path, encoding="utf-8") as f:
        tokens = re.findall(r"'(?:''|[^'])*'|\{[0-9A-Fa-f-]{36}\}|[{}=]|[^\s{}=']+", f.read())
    position = 0

    def keys():  # the keys and values up to the closing brace
        nonlocal position
        found = {"keys": {}, "values": {}}
        while position < len(tokens) and tokens[position] != "}":
            is_value = tokens[position] == "val"
            position += is_value
            while tokens[position] in ("ForceRemove", "NoRemove", "Delete"):
                position += 1
            name, value = tokens[position], None
            position += 1
            if position < len(tokens) and tokens[position] == "=":
                value = tokens[position + 2][1:-1].replace("''", "'")
                position += 3
            if is_value:
                found["values"][name] = value
                continue
            node = {"keys": {}, "values": {}}
            if position < len(tokens) and tokens[position] == "{":
                position += 1
                node = keys()
                position += 1
            node["default"] = value
            found["keys"][name.upper()] = node
        return found

    try:
        root = keys()
    except IndexError:
        root = None
    if root is None or position != len(tokens):
        raise ContractError("%s: cannot read the registry script" % path)
    empty = {"keys": {}, "values": {}}
    classes = {}
    for name, key in root["keys"].get("HKCR", empty)["keys"].get("CLSID", empty)["keys"].items():
        if re.match(r"\{[0-9A-F-]{36}\}$", name):
            sub = key["keys"]
            classes[name[1:-1]] = {
                "ProgID": sub.get("PROGID", {}).get("default"),
                "VersionIndependentProgID": sub.get("VERSIONINDEPENDENTPROGID", {}).get("default"),
                "ThreadingModel": sub.get("INPROCSERVER32", empty)["values"].get("ThreadingModel")}
    return classes


# --- The reference -----------------------------------------------------------

def code(text):
    return "`%s`" % text if text is not None else "none"


def link(name):
    return "[`%s`](#%s)" % (name, name.lower())


def escape(text):
    return re.sub(r"([\\|*<>`])", r"\\\1", text)


def dispid_text(value):
    if value is None:
        return "none"
    if value in DISPIDS:
        return "`%s` (%d)" % (value, DISPIDS[value])
    if not re.match(r"-?(0x[0-9A-Fa-f]+|\d+)$", value):
        raise ContractError("unknown dispatch identifier %s" % value)
    return "`%s`" % value


class Contract:
    def __init__(self, idl, mc, scripts):
        self.header_view = read_idl(idl, set())      # what the header and the proxy/stub are made from
        self.typelib_view = read_idl(idl, {TYPELIB_SYMBOL})
        self.messages = read_messages(mc)
        self.registrations = {}
        for script in scripts:
            self.registrations.update(read_script(script))
        kinds = lambda *wanted: [s for s in self.header_view if s["kind"] in wanted]
        self.interfaces = kinds("interface", "dispinterface")
        self.enums, self.records = kinds("enum"), kinds("struct")
        self.coclasses = kinds("coclass")
        self.library = next(iter(kinds("library")), None)
        self.names = {s["name"] for s in self.interfaces + self.enums + self.records}
        self.typelib_types = {s["name"]: s for s in self.typelib_view if "members" in s}
        self.in_typelib = self.typelib_closure()
        self.check()

    def typelib_closure(self):
        """What the type library describes: what the library block names, and all that it uses."""
        defined = {s["name"]: s for s in self.typelib_view if s["kind"] in ("interface", "dispinterface", "enum",
                                                                             "struct")}
        pending = []
        for s in self.typelib_view:
            if s.get("library"):
                pending.append(s["name"])
            if s["kind"] == "coclass":
                pending.extend(i["name"] for i in s["interfaces"])
        seen = set()
        while pending:
            name = pending.pop()
            if name in seen or name not in defined:
                continue
            seen.add(name)
            s = defined[name]
            used = [s.get("base") or ""] + [p["type"] for m in s.get("members", []) for p in m["params"]]
            used += [item.get("type", "") for item in s.get("items", [])]
            pending.extend(re.findall(r"\w+", " ".join(used)))
        return seen

    def check(self):
        missing = ["%s::%s (%s)" % (i["name"], m["name"], m["kind"])
                   for i in self.interfaces for m in i["members"]
                   if not (unquote(m["attrs"].get("helpstring")) or "").strip()]
        if missing:
            raise ContractError("members without a helpstring in the interface definitions:\n  " +
                                "\n  ".join(missing))
        known = {(c["attrs"].get("uuid") or "").upper() for c in self.coclasses}
        stray = sorted(set(self.registrations) - known)
        if stray:
            raise ContractError("registry scripts of classes that the interface definitions lack: " +
                                ", ".join(stray))

    def write(self):
        lines = []
        w = lines.append
        w("# KyUtils reference")
        w("")
        w("Generated from `contract/kyutils.idl`, `contract/messages.mc` and `resources/*.rgs` by "
          "`contract/reference.py` in every build, as `<build>/generated/reference.md`: do not edit this copy, "
          "copy that one over it. The descriptions are the help strings of the interface definitions, which "
          "object browsers show too.")
        w("")
        if self.library:
            a = self.library["attrs"]
            w("Type library `%s` %s, LIBID `{%s}`, locale %s: %s." % (
                self.library["name"], a.get("version"), (a.get("uuid") or "").upper(), a.get("lcid"),
                escape(unquote(a.get("helpstring")) or "")))
            w("")
        w("- [Classes](#classes): " + ", ".join(link(c["name"]) for c in self.coclasses))
        w("- [Interfaces](#interfaces): " + ", ".join(link(i["name"]) for i in self.interfaces))
        w("- [Enumerations](#enumerations): " + ", ".join(link(t["name"]) for t in self.enums))
        w("- [Records](#records): " + ", ".join(link(t["name"]) for t in self.records))
        w("- [Result codes](#result-codes)")
        self.write_classes(w)
        self.write_interfaces(w)
        self.write_typedefs(w, "Enumerations", self.enums)
        self.write_typedefs(w, "Records", self.records)
        self.write_messages(w)
        return "\n".join(lines) + "\n"

    def describe(self, w, attrs):
        if attrs.get("helpstring"):
            w(escape(unquote(attrs["helpstring"])))
            w("")

    def write_classes(self, w):
        w("")
        w("## Classes")
        typelib_classes = {s["name"]: s for s in self.typelib_view if s["kind"] == "coclass"}
        for c in self.coclasses:
            clsid = (c["attrs"].get("uuid") or "").upper()
            reg = self.registrations.get(clsid)
            w("")
            w("### %s" % c["name"])
            w("")
            self.describe(w, c["attrs"])
            w("- CLSID: `{%s}`" % clsid)
            if reg is None:
                w("- Registered: no")
            else:
                w("- ProgID: %s; version-independent: %s" % (code(reg["ProgID"]),
                                                             code(reg["VersionIndependentProgID"])))
                model = reg["ThreadingModel"]
                w("- Threading model: %s" % ("none" if model is None else "none (empty value)" if not model
                                             else model))
            described = {i["name"] for i in typelib_classes.get(c["name"], {"interfaces": []})["interfaces"]}
            w("- Interfaces:" + ("" if c["interfaces"] else " none"))
            for i in c["interfaces"]:
                notes = [flag for flag in ("default", "source") if flag in i["attrs"]]
                if i["name"] not in described:
                    notes.append("not listed in the type library")
                if i["name"] not in self.names:
                    notes.append("system interface")
                target = link(i["name"]) if i["name"] in self.names else code(i["name"])
                w("  - %s%s" % (target, " (%s)" % ", ".join(notes) if notes else ""))

    def write_interfaces(self, w):
        w("")
        w("## Interfaces")
        for i in self.interfaces:
            a = i["attrs"]
            kind = "dispinterface" if i["kind"] == "dispinterface" else "dual" if "dual" in a else "custom"
            if kind == "custom" and "oleautomation" in a:
                kind += ", automation-compatible"
            classes = ["%s%s" % (link(c["name"]), " (source)" if "source" in e["attrs"] else "")
                       for c in self.coclasses for e in c["interfaces"] if e["name"] == i["name"]]
            w("")
            w("### %s" % i["name"])
            w("")
            self.describe(w, a)
            w("- Kind: %s" % kind)
            if i["base"]:
                w("- Base: %s" % (link(i["base"]) if i["base"] in self.names else code(i["base"])))
            w("- IID: `{%s}`" % (a.get("uuid") or "").upper())
            w("- In the type library: %s" % ("yes" if i["name"] in self.in_typelib else "no"))
            w("- Classes: %s" % (", ".join(classes) or "none"))
            w("")
            dispatch = kind in ("dual", "dispinterface")
            w("| Member | Kind |%s Parameters | Description |" % (" DISPID |" if dispatch else ""))
            w("|---|---|%s---|---|" % ("---|" if dispatch else ""))
            described = self.typelib_types.get(i["name"], i)["members"]
            for m, other in zip(i["members"], described + i["members"][len(described):]):
                params = ", ".join(self.param(p, q) for p, q in zip(m["params"], other["params"])) or "none"
                dispid = " %s |" % dispid_text(m["attrs"].get("id")) if dispatch else ""
                kind_text = m["kind"] + (", restricted" if "restricted" in m["attrs"] else "")
                w("| `%s` | %s |%s %s | %s |" % (m["name"], kind_text, dispid, params,
                                                 escape(unquote(m["attrs"]["helpstring"]))))

    @staticmethod
    def param(p, described):
        """`[in] BSTR bstrName`, with the type library's type where it differs."""
        if not p["name"]:
            return code(p["type"])
        attrs = [("%s(%s)" % (k, v) if v is not None else k) for k, v in p["attrs"].items()]
        text = "`[%s] %s %s`" % (", ".join(attrs), p["type"], p["name"])
        if described["type"] != p["type"]:
            text += " (type library: `%s`)" % described["type"]
        return text

    def write_typedefs(self, w, title, typedefs):
        w("")
        w("## %s" % title)
        for t in typedefs:
            w("")
            w("### %s" % t["name"])
            w("")
            self.describe(w, t["attrs"])
            w("In the type library: %s." % ("yes" if t["name"] in self.in_typelib else "no"))
            w("")
            if t["kind"] == "enum":
                w("| Name | Value |")
                w("|---|---|")
                for item in t["items"]:
                    w("| `%s` | `%s` |" % (item["name"], item["value"]))
            else:
                w("| Field | Type |")
                w("|---|---|")
                for item in t["items"]:
                    w("| `%s` | `%s` |" % (item["name"], item["type"]))

    def write_messages(self, w):
        w("")
        w("## Result codes")
        w("")
        w("The library's own codes, in the interface facility (4). A client gets a code's text with "
          "`FormatMessage` from the library's message table (language 1033); there each text ends in CR LF.")
        w("")
        w("| Name | Value | Severity | Text |")
        w("|---|---|---|---|")
        for m in self.messages:
            w("| `%s` | `0x%08X` | %s | %s |" % (m["name"], m["code"], m["severity"].lower(), escape(m["text"])))


def main(argv):
    if len(argv) < 4:
        sys.stderr.write(__doc__)
        return 2
    idl, mc, output, scripts = argv[1], argv[2], argv[3], argv[4:]
    try:
        text = Contract(idl, mc, scripts).write()
    except (ContractError, OSError, UnicodeDecodeError) as error:
        sys.stderr.write("reference.py: %s\n" % error)
        return 1
    with open(output, "w", encoding="utf-8", newline="\n") as f:
        f.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
