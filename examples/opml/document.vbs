' The OPML document from VBScript: header fields and dates, an outline tree
' built with AddNew and walked with For Each, and OPML text loaded from a
' string. Dates are local time in the model and universal time in OPML text;
' the suite runs this sample with TZ=America/New_York.
'
' Save writes only into a stream handed over as VT_UNKNOWN, which a script
' host cannot pass, so scripts build, load and read documents but do not
' save them.
Option Explicit

On Error Resume Next
Main
If Err.Number <> 0 Then
    WScript.Echo "Error 0x" & Hex(Err.Number) & ": " & Err.Description
    WScript.Quit 1
End If

Sub Main
    Dim doc, header, novels, book, attribute
    Set doc = CreateObject("Norvane.OPMLDocument")
    Set header = doc.Header
    header.Title = "Reading list"
    header.OwnerEmail = "ann@example.org"
    header.DateCreated = DateSerial(2024, 7, 1) + TimeSerial(12, 34, 56)
    header.WindowRight = 640
    header.ExpansionState.Add 1
    header.ExpansionState.Add 4

    Set novels = doc.Body.AddNew()
    novels.Text = "Novels"
    novels.type = "folder"
    Set book = novels.SubItems.AddNew()
    book.Text = "Middlemarch"
    Set attribute = book.Attributes.AddNew()
    attribute.Name = "author"
    attribute.Value = "George Eliot"
    book.IsBreakPoint = True
    novels.SubItems.AddNew().Text = "Persuasion"
    doc.Body.AddNew().Text = "Poems"

    WScript.Echo "Title: " & header.Title & " <" & header.OwnerEmail & ">"
    WScript.Echo "Created: " & Stamp(header.DateCreated) & ", window right edge " & header.WindowRight
    WScript.Echo "Expanded lines: " & List(header.ExpansionState)
    Walk doc.Body, "  "
    WScript.Echo "Breakpoint on " & novels.SubItems.Item(1).Text & ": " & novels.SubItems.Item(1).IsBreakPoint

    Dim loaded
    Set loaded = CreateObject("Norvane.OPMLDocument")
    loaded.Load "<?xml version=""1.0""?>" & vbCrLf & _
        "<opml version=""1.0""><head><title>Imported</title>" & _
        "<dateModified>Mon, 01 Jul 2024 16:34:56 GMT</dateModified></head>" & _
        "<body><outline text=""Essays""><outline text=""Walden"" year=""1854""/></outline></body></opml>"
    WScript.Echo "Loaded: " & loaded.Header.Title & ", modified " & Stamp(loaded.Header.DateModified) & " (New York)"
    Walk loaded.Body, "  "

    ' A document that breaks the structure adds nothing and raises no error.
    loaded.Load "<opml version=""2.0""><head/><body><outline text=""x""/></body></opml>"
    WScript.Echo "Outlines after also loading an OPML 2.0 text: " & loaded.Body.Count
End Sub

' One line per outline: its attributes in order, indented by depth.
Sub Walk(outlines, indent)
    Dim outline, attribute, line
    For Each outline In outlines
        line = indent & "-"
        For Each attribute In outline.Attributes
            line = line & " " & attribute.Name & "=" & attribute.Value
        Next
        WScript.Echo line
        Walk outline.SubItems, indent & "  "
    Next
End Sub

Function List(values)
    Dim value
    List = ""
    For Each value In values
        If List <> "" Then List = List & ","
        List = List & value
    Next
End Function

Function Stamp(moment)
    Stamp = Year(moment) & "-" & Pad(Month(moment)) & "-" & Pad(Day(moment)) & " " & _
            Pad(Hour(moment)) & ":" & Pad(Minute(moment)) & ":" & Pad(Second(moment))
End Function

Function Pad(number)
    Pad = Right("0" & number, 2)
End Function
