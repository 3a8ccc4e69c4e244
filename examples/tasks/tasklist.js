// The task list from JScript: tasks are added, updated as their work goes
// on, found by position, enumerated and removed again.
//
// The list announces every change through its _IKyTasksEvents events. A
// script would receive them through WScript.ConnectObject, which Wine's
// script host does not implement, so this sample only drives the list.
try {
    var KYTA_COPY = 1;
    var tasks = new ActiveXObject("KyUtils.KyTasks");

    // The third argument is the operation's cancel callback: a script has
    // none to give, so it passes null (or leaves it out).
    var copy = tasks.Add("Copying 3 files", true, null);
    var search = tasks.Add("Searching the directory", false);
    WScript.Echo("Tasks: " + tasks.Count);

    copy.SetStandardAnimation(KYTA_COPY);
    for (var i = 1; i <= 3; i++) {
        copy.Description = "File " + i + " of 3";
        copy.Progress = Math.floor(i * 100 / 3);
        WScript.Echo(copy.Name + " - " + copy.Description + " - " + copy.Progress + "%");
    }
    search.Description = "cn=Users";

    WScript.Echo("Item 0: " + tasks.Item(0).Name);
    WScript.Echo("Item 1: " + tasks(1).Name + " (" + tasks(1).Description + ")");

    // Values out of range are refused with E_INVALIDARG.
    try {
        copy.Progress = 150;
    } catch (refused) {
        WScript.Echo("Progress 150 refused: 0x" + (refused.number >>> 0).toString(16).toUpperCase());
    }

    for (var e = new Enumerator(tasks); !e.atEnd(); e.moveNext()) {
        var task = e.item();
        WScript.Echo("- " + task.Name + ", progress " + task.Progress + ", can cancel: " + task.CanCancel +
                     ", progress dialog: " + task.ShowProgressDialog);
    }

    tasks.Remove(copy);
    search.Delete();
    WScript.Echo("Tasks: " + tasks.Count);
} catch (error) {
    WScript.Echo("Error 0x" + (error.number >>> 0).toString(16).toUpperCase() + ": " + error.description);
    WScript.Quit(1);
}
