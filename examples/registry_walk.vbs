Option Explicit
' clsEasyRegistry: a walk through a scratch key of its own.
Dim reg : Set reg = CreateObject("vxTypes32.clsEasyRegistry")
Const demoKey = "vxTypes32 demo"
Dim status, kind, ret, value, listing, valueName
status = reg.CD("\HKEY_CURRENT_USER\Software")
status = reg.MakeKey(demoKey)
status = reg.CD(demoKey)
WScript.Echo "clsEasyRegistry key " & reg.CurrentKey & " (CD status " & status & ")"
kind = 0 : reg.ValueOf("Site", kind, ret) = "Ridge line 7"
kind = 2 : reg.ValueOf("Readings", kind, ret) = CDbl(305419896)
value = reg.ValueOf("Readings", kind, ret)
kind = 1 : reg.ValueOf("Raw", kind, ret) = value(1)
status = reg.DirValue(listing)
WScript.Echo "                DirValue status " & status & ": " & ListingText(listing)
For Each valueName In Array("Site", "Readings", "Raw")
    value = reg.ValueOf(valueName, kind, ret)
    WScript.Echo "                " & valueName & ": kind " & kind & ", """ & value(0) & """, number " & value(2)
    status = reg.DeleteValue(valueName)
Next
status = reg.CD("..")
WScript.Echo "                removed (status " & reg.DeleteKey(demoKey) & "); removing it again: " & reg.DeleteKey(demoKey)

' The listing is a String array, which Wine's VBScript cannot index.
Function ListingText(list)
    On Error Resume Next
    Dim row, text
    For row = 0 To UBound(list, 2)
        text = text & "[" & list(0, row) & " = " & list(1, row) & " (" & list(2, row) & ")] "
    Next
    If Err.Number <> 0 Then text = "a String array (VarType " & VarType(list) & ") this VBScript cannot index"
    ListingText = text
End Function
