// The OPML document from JScript, by name through the type library: build a
// document, load OPML text from a string and walk its outline tree.
//
// Save writes only into a stream handed over as VT_UNKNOWN, which a script
// host cannot pass, so scripts build, load and read documents but do not
// save them.
try {
    // Build: the header by name, outlines with AddNew, attributes, sub-items.
    var doc = new ActiveXObject("Norvane.OPMLDocument");
    doc.Header.Title = "Groceries";
    doc.Header.OwnerName = "Ann";
    var fruit = doc.Body.AddNew();
    fruit.Text = "Fruit";
    var apples = fruit.SubItems.AddNew();
    apples.Text = "Apples";
    var count = apples.Attributes.AddNew();
    count.Name = "count";
    count.Value = "6";
    apples.IsComment = true;  // stored as the attribute isComment="-1"
    fruit.SubItems.AddNew().Text = "Pears";
    doc.Body.AddNew().Text = "Bread";
    doc.Header.ExpansionState.Add(1);
    WScript.Echo("Built \"" + doc.Header.Title + "\" by " + doc.Header.OwnerName + ", OPML " +
                 doc.VersionMajor + "." + doc.VersionMinor);
    walk(doc.Body, "  ");

    // Load: text in a string, added to a new document.
    var text =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n" +
        "<opml version=\"1.0\">\r\n" +
        "\t<head>\r\n\t\t<title>Workshop &amp; Garden</title>\r\n" +
        "\t\t<expansionState>1,3</expansionState>\r\n\t</head>\r\n" +
        "\t<body>\r\n" +
        "\t\t<outline text=\"Tools\" type=\"folder\">\r\n" +
        "\t\t\t<outline text=\"Saw\" note=\"&quot;sharp&quot;\"/>\r\n" +
        "\t\t\t<outline text=\"Hammer\"/>\r\n" +
        "\t\t</outline>\r\n" +
        "\t\t<outline text=\"Seeds\" isComment=\"true\"/>\r\n" +
        "\t</body>\r\n</opml>\r\n";
    var loaded = new ActiveXObject("Norvane.OPMLDocument");
    loaded.Load(text);
    WScript.Echo("Loaded \"" + loaded.Header.Title + "\" with " + loaded.Body.Count + " outlines, expanded: " +
                 list(loaded.Header.ExpansionState));
    walk(loaded.Body, "  ");

    // Look up by position (from 1) and by text; flags read from attributes.
    var tools = loaded.Body.Item("Tools");
    WScript.Echo("Item(\"Tools\") has " + tools.SubItems.Count + " sub-items; the first is " +
                 tools.SubItems.Item(1).Text);
    WScript.Echo("Seeds is a comment: " + loaded.Body.Item(2).IsComment);
    tools.SubItems.Remove(1);
    WScript.Echo("After Remove(1): " + tools.SubItems.Item(1).Text);
} catch (e) {
    WScript.Echo("Error 0x" + (e.number >>> 0).toString(16) + ": " + e.description);
    WScript.Quit(1);
}

// One line per outline: its attributes in order, indented by depth.
function walk(outlines, indent) {
    for (var e = new Enumerator(outlines); !e.atEnd(); e.moveNext()) {
        var outline = e.item();
        var line = indent + "-";
        for (var i = 1; i <= outline.Attributes.Count; i++) {
            var attribute = outline.Attributes.Item(i);
            line += " " + attribute.Name + "=" + attribute.Value;
        }
        WScript.Echo(line);
        walk(outline.SubItems, indent + "  ");
    }
}

function list(values) {
    var items = [];
    for (var e = new Enumerator(values); !e.atEnd(); e.moveNext()) items.push(e.item());
    return items.join(",");
}
