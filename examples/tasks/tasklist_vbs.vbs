' The task list from VBScript: tasks are added, updated as their work goes
' on, found by position, enumerated with For Each and removed again.
'
' The list announces every change through its _IKyTasksEvents events. A
' script would receive them through WScript.ConnectObject, which Wine's
' script host does not implement, so this sample only drives the list.
Option Explicit

Const KYTA_COPY = 1

Sub Main
    Dim tasks, copy, search, task, i, removed
    Set tasks = CreateObject("KyUtils.KyTasks")

    ' The third argument is the operation's cancel callback: a script has
    ' none to give, so it passes Nothing (or leaves it out).
    Set copy = tasks.Add("Copying 3 files", True, Nothing)
    Set search = tasks.Add("Searching the directory", False)
    WScript.Echo "Tasks: " & tasks.Count

    copy.SetStandardAnimation KYTA_COPY
    For i = 1 To 3
        copy.Description = "File " & i & " of 3"
        copy.Progress = (i * 100) \ 3
        WScript.Echo copy.Name & " - " & copy.Description & " - " & copy.Progress & "%"
    Next
    search.Description = "cn=Users"

    WScript.Echo "Item 0: " & tasks.Item(0).Name
    WScript.Echo "Item 1: " & tasks(1).Name & " (" & tasks(1).Description & ")"

    ' Values out of range are refused with E_INVALIDARG, which VBScript
    ' reports as its own error 5 (invalid argument).
    On Error Resume Next
    copy.Progress = 150
    WScript.Echo "Progress 150 refused: error " & Err.Number
    Err.Clear
    On Error GoTo 0

    ' For Each walks a snapshot, so removing while walking is safe. (Wine's
    ' VBScript cannot call members on the items it hands out, so the loop
    ' only gives each task back to the list.)
    removed = 0
    For Each task In tasks
        tasks.Remove task
        removed = removed + 1
    Next
    WScript.Echo "Removed " & removed & " tasks, tasks left: " & tasks.Count
End Sub

On Error Resume Next
Main
If Err.Number <> 0 Then
    WScript.Echo "Error 0x" & Hex(Err.Number) & ": " & Err.Description
    WScript.Quit 1
End If
