' The string collection from VBScript: created by its ProgID, filled,
' sorted, looked up by position and by text, and walked with For Each.
' Run: cscript //nologo kystrings-vb.vbs
Option Explicit

' The elements in collection order, through the collection's enumerator.
Function Joined(collection)
    Dim word
    Joined = ""
    For Each word In collection
        If Joined <> "" Then Joined = Joined & " "
        Joined = Joined & word
    Next
End Function

Sub Main()
    Dim names, word
    Set names = CreateObject("KyUtils.KyStrings")
    names.UniqueStrings = True
    names.CompareFlags = 1 ' NORM_IGNORECASE: "MAIL" is a repeat of "mail"
    For Each word In Array("mail", "cn", "givenName", "MAIL", "sn", "displayName")
        names.Add word
    Next
    WScript.Echo "Count: " & names.Count

    names.Sort True, 0, 0
    WScript.Echo "First: " & names.Item(0) & ", last: " & names(names.Count - 1)
    WScript.Echo "By text: " & names.Item("sn")

    WScript.Echo "Sorted: " & Joined(names)

    names.Sort False, 0, 0
    names.Remove "cn"
    WScript.Echo "Descending without cn: " & Joined(names)
End Sub

' Lookups compare case-sensitively whatever CompareFlags says.
Sub ShowMissing()
    Dim names
    Set names = CreateObject("KyUtils.KyStrings")
    names.Add "sn"
    On Error Resume Next
    names.Item "SN"
    WScript.Echo "SN: 0x" & Hex(Err.Number)
    Err.Clear
    On Error GoTo 0
End Sub

On Error Resume Next
Main
If Err.Number = 0 Then ShowMissing
If Err.Number <> 0 Then
    WScript.Echo "Error 0x" & Hex(Err.Number) & ": " & Err.Description
    WScript.Quit 1
End If
