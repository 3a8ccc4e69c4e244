// The string collection from JScript: created by its ProgID, filled, sorted,
// looked up by position and by text, and walked with an Enumerator.
// Run: cscript //nologo kystrings.js
function hex(n) {
    return "0x" + (n < 0 ? n + 0x100000000 : n).toString(16).toUpperCase();
}

// The elements in collection order, through the collection's enumerator.
function joined(collection) {
    var line = "";
    for (var items = new Enumerator(collection); !items.atEnd(); items.moveNext()) {
        line += (line ? " " : "") + items.item();
    }
    return line;
}

try {
    var names = new ActiveXObject("KyUtils.KyStrings");
    names.UniqueStrings = true;
    names.CompareFlags = 1; // NORM_IGNORECASE: "MAIL" is a repeat of "mail"
    var words = ["mail", "cn", "givenName", "MAIL", "sn", "displayName"];
    for (var i = 0; i < words.length; i++) {
        names.Add(words[i]);
    }
    WScript.Echo("Count: " + names.Count);

    names.Sort(true, 0, 0);
    WScript.Echo("First: " + names.Item(0) + ", last: " + names(names.Count - 1));
    WScript.Echo("By text: " + names.Item("sn"));

    // Lookups compare case-sensitively whatever CompareFlags says.
    try {
        names.Item("SN");
        WScript.Echo("SN: found");
    } catch (e) {
        WScript.Echo("SN: " + hex(e.number));
    }

    WScript.Echo("Sorted: " + joined(names));

    names.Sort(false, 0, 0);
    names.Remove("cn");
    WScript.Echo("Descending without cn: " + joined(names));
} catch (e) {
    WScript.Echo("Error " + hex(e.number) + ": " + e.description);
    WScript.Quit(1);
}
