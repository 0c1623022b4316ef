' clsQuickSort from VBScript, run by the project's script host, which sinks
' events: the script keeps the items in an array of its own and answers the
' events through Subs named after them. Quits with the number of failed checks.
Option Explicit
Dim failures : failures = 0
Sub Check(condition, label)
    If Not condition Then failures = failures + 1 : WScript.Echo "FAILED: " & label
End Sub

Dim items, log, failAt
Sub sorter_isLess(ndx1, ndx2, Result)
    log = log & "isLess(" & ndx1 & "," & ndx2 & ") "
    If failAt = Len(log) Then Err.Raise 1001, "SortClient", "cannot compare"
    If items(ndx1) < items(ndx2) Then Result = -1
    If items(ndx1) > items(ndx2) Then Result = 1
End Sub
Sub sorter_SwapItems(ndx1, ndx2)
    log = log & "SwapItems(" & ndx1 & "," & ndx2 & ") "
    Dim kept : kept = items(ndx1) : items(ndx1) = items(ndx2) : items(ndx2) = kept
End Sub

Function Joined(values) ' Wine's VBScript has no Join
    Dim i : Joined = values(0) : For i = 1 To UBound(values) : Joined = Joined & "," & values(i) : Next
End Function

Dim sorter : Set sorter = CreateObject("vxTypes32.clsQuickSort") : WScript.ConnectObject sorter, "sorter_"

' The worked example: indices 1 to 3 of an array whose slot 0 is unused.
items = Array(0, 3, 1, 2) : log = "" : sorter.Sort 3
Check log = "isLess(1,3) SwapItems(1,3) isLess(1,3) isLess(2,3) isLess(3,3) isLess(1,2) SwapItems(1,2) ", "events: " & log
Check Joined(items) = "0,1,2,3", "order " & Joined(items)

' A shuffled array of words sorted from index 0.
items = Array("pear", "fig", "apple", "kiwi", "date", "lime", "plum", "cherry", "grape", "banana", "mango", "lemon")
sorter.Sort UBound(items), 0
Check Joined(items) = "apple,banana,cherry,date,fig,grape,kiwi,lemon,lime,mango,pear,plum", "words: " & Joined(items)

' An error raised in a handler ends the sort with that error: here the second isLess.
items = Array(0, 3, 1, 2) : log = "" : failAt = Len("isLess(1,3) SwapItems(1,3) isLess(1,3) ")
sorter.runtime = 77
On Error Resume Next : sorter.Sort 3
Check Err.Number = 1001 And Err.Source = "SortClient", "error from the handler: " & Err.Number & " " & Err.Source
On Error GoTo 0 : failAt = 0
Check log = "isLess(1,3) SwapItems(1,3) isLess(1,3) " And sorter.runtime = 77, "nothing after the failure: " & log

WScript.DisconnectObject sorter
items = Array(0, 3, 1, 2) : log = "" : sorter.Sort 3
Check log = "", "disconnected: no events"
If failures = 0 Then WScript.Echo "PASS: sort_events.vbs"
WScript.Quit failures
