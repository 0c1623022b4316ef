' clsQuickSort from VBScript: the script keeps the items in an array of its
' own and answers the events through Subs named after them. Run by the
' project's script host, which sinks events. Quits with the number of
' failed checks.
Option Explicit

Dim failures : failures = 0
Sub Check(condition, label)
    If Not condition Then
        failures = failures + 1
        WScript.Echo "FAILED: " & label
    End If
End Sub

Dim items, log, swaps, comparisons, failAt
Sub ResetLog()
    log = "" : swaps = 0 : comparisons = 0
End Sub

Sub sorter_isLess(ndx1, ndx2, Result)
    comparisons = comparisons + 1
    log = log & "isLess(" & ndx1 & "," & ndx2 & ") "
    If failAt = comparisons Then Err.Raise 1001, "SortClient", "cannot compare"
    If items(ndx1) < items(ndx2) Then
        Result = -1
    ElseIf items(ndx1) > items(ndx2) Then
        Result = 1
    End If
End Sub

Sub sorter_SwapItems(ndx1, ndx2)
    swaps = swaps + 1
    log = log & "SwapItems(" & ndx1 & "," & ndx2 & ") "
    Dim kept : kept = items(ndx1)
    items(ndx1) = items(ndx2)
    items(ndx2) = kept
End Sub

Function Joined(values, first, last)
    Dim i, text
    For i = first To last
        If i > first Then text = text & ","
        text = text & values(i)
    Next
    Joined = text
End Function

Dim sorter : Set sorter = CreateObject("vxTypes32.clsQuickSort")
WScript.ConnectObject sorter, "sorter_"

' The two worked examples: indices 1 to 3 of an array whose slot 0 is unused.
Dim examples : examples = Array( _
    Array(Array(0, 3, 1, 2), "isLess(1,3) SwapItems(1,3) isLess(1,3) isLess(2,3) isLess(3,3) isLess(1,2) SwapItems(1,2) ", "1,2,3"), _
    Array(Array(0, 2, 2, 1), "isLess(1,3) SwapItems(1,3) isLess(1,3) isLess(2,3) SwapItems(2,3) isLess(2,3) isLess(2,2) isLess(2,2) ", "1,2,2"))
Dim example
For Each example In examples
    items = example(0) : ResetLog
    sorter.Sort 3
    Check log = example(1), "events for " & example(2) & ": " & log
    Check Joined(items, 1, 3) = example(2), "order " & Joined(items, 1, 3)
Next

' A shuffled array of words sorted from index 0, and the count of a presorted range.
items = Array("pear", "fig", "apple", "kiwi", "date", "lime", "plum", "cherry", "grape", "banana", "mango", "lemon")
ResetLog
sorter.Sort UBound(items), 0
Check Joined(items, 0, UBound(items)) = "apple,banana,cherry,date,fig,grape,kiwi,lemon,lime,mango,pear,plum", _
      "words sorted: " & Joined(items, 0, UBound(items))
Dim n, i : n = 50
ReDim items(n)
For i = 1 To n : items(i) = i : Next
ResetLog
sorter.Sort n
Check comparisons = n * (n + 1) / 2 + n - 4 And swaps = 0, "presorted 50: " & comparisons & " comparisons, " & swaps & " swaps"
Check sorter.runtime >= 0, "runtime after a sort"

' An error raised in a handler ends the sort with that error.
items = Array(0, 3, 1, 2) : ResetLog : failAt = 2
sorter.runtime = 77
On Error Resume Next
sorter.Sort 3
Dim number, source : number = Err.Number : source = Err.Source
On Error GoTo 0
failAt = 0
Check number = 1001, "error from the handler: " & number
Check source = "SortClient", "its source: " & source
Check comparisons = 2 And swaps = 1, "no events after the failure: " & log
Check sorter.runtime = 77, "runtime kept after a failed sort"

' Overflow before any event.
ResetLog
On Error Resume Next
sorter.Sort 2147483647, -2
number = Err.Number
On Error GoTo 0
Check number = 6, "overflow: " & number
Check log = "", "no events before the overflow: " & log

WScript.DisconnectObject sorter
items = Array(0, 3, 1, 2) : ResetLog
sorter.Sort 3
Check log = "", "disconnected: no events"

WScript.Quit failures
