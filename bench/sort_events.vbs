' clsQuickSort events into a VBScript sink, through the project's script
' host; beside it, the same number of direct calls of the handler Subs.
Option Explicit
Dim items, comparisons, swaps
Sub sorter_isLess(ndx1, ndx2, Result)
    comparisons = comparisons + 1
    If items(ndx1) < items(ndx2) Then
        Result = -1
    ElseIf items(ndx1) > items(ndx2) Then
        Result = 1
    End If
End Sub
Sub sorter_SwapItems(ndx1, ndx2)
    swaps = swaps + 1
    Dim kept : kept = items(ndx1) : items(ndx1) = items(ndx2) : items(ndx2) = kept
End Sub

Dim sorter : Set sorter = CreateObject("vxTypes32.clsQuickSort")
WScript.ConnectObject sorter, "sorter_"
Sub Measure(kind, n)
    Dim i, start, sorting, direct, answer
    ReDim items(n)
    Randomize 1
    For i = 1 To n
        If kind = "random" Then
            items(i) = Rnd
        ElseIf kind = "presorted" Then
            items(i) = i
        Else
            items(i) = 7
        End If
    Next
    comparisons = 0 : swaps = 0
    start = Timer
    sorter.Sort n
    sorting = Timer - start
    Dim total : total = comparisons + swaps
    start = Timer
    For i = 1 To comparisons
        answer = 0
        sorter_isLess 1, n, answer
    Next
    For i = 1 To swaps
        sorter_SwapItems 1, n
    Next
    direct = Timer - start
    If sorting <= 0 Then sorting = 0.001
    If direct <= 0 Then direct = 0.001
    WScript.Echo "  " & kind & " " & n & ": " & total & " events, " & _
        FormatNumber(total / sorting / 1000, 0) & "k events/s; direct Sub calls " & _
        FormatNumber(total / direct / 1000, 0) & "k/s"
End Sub
WScript.Echo "  clsQuickSort into a VBScript sink"
Measure "random", 2000
Measure "random", 20000
Measure "presorted", 500
Measure "all-equal", 500
