' clsQuickSort: this script keeps the list; the sorter asks it to compare
' and swap through events. Windows' cscript sinks them with ConnectObject;
' under Wine, whose script hosts cannot, the project's own host runs it.
Option Explicit
Dim names : names = Array("Tx_line", "zone", "datum", "reading", "facet", "survey", "anchor", "grid")
Dim comparisons, swaps

Sub sorter_isLess(ndx1, ndx2, Result)
    comparisons = comparisons + 1
    Result = StrComp(names(ndx1), names(ndx2), vbTextCompare)
End Sub

Sub sorter_SwapItems(ndx1, ndx2)
    swaps = swaps + 1
    Dim kept : kept = names(ndx1) : names(ndx1) = names(ndx2) : names(ndx2) = kept
End Sub

Function Listed()
    Dim i : Listed = names(0)
    For i = 1 To UBound(names) : Listed = Listed & ", " & names(i) : Next
End Function

Dim sorter : Set sorter = CreateObject("vxTypes32.clsQuickSort")
WScript.ConnectObject sorter, "sorter_"
WScript.Echo "clsQuickSort    before " & Listed()
sorter.Sort UBound(names), 0
WScript.Echo "                sorted " & Listed()
WScript.Echo "                events " & comparisons & " isLess, " & swaps & " SwapItems; runtime " & sorter.runtime & " s"
