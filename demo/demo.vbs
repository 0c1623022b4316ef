' vxTypes32 at work, seen from a script client.
Option Explicit

Dim created : created = ""
Function Make(className)
    Set Make = CreateObject("vxTypes32." & className)
    If created <> "" Then created = created & ", "
    created = created & className
End Function

Dim user : Set user = Make("UserInfo")
WScript.Echo "Logon name:    " & user.Logon
WScript.Echo "Computer name: " & user.ComputerName

Dim anchor : Set anchor = Make("Class_vxTypes32")

' clsEasyRegistry: a walk through a scratch key of its own.
Dim reg : Set reg = Make("clsEasyRegistry")
Const demoKey = "vxTypes32 demo"
Dim status, kind, ret, value, listing, valueName
status = reg.CD("\HKEY_CURRENT_USER\Software")
status = reg.MakeKey(demoKey)
status = reg.CD(demoKey)
WScript.Echo "Registry key:  " & reg.CurrentKey & " (CD status " & status & ")"
kind = 0 : reg.ValueOf("Site", kind, ret) = "Ridge line 7"
kind = 2 : reg.ValueOf("Readings", kind, ret) = CDbl(305419896)
value = reg.ValueOf("Readings", kind, ret)
kind = 1 : reg.ValueOf("Raw", kind, ret) = value(1)
status = reg.DirValue(listing)
WScript.Echo "  DirValue status " & status & ": " & ListingText(listing)
For Each valueName In Array("Site", "Readings", "Raw")
    value = reg.ValueOf(valueName, kind, ret)
    WScript.Echo "  " & valueName & ": kind " & kind & ", """ & value(0) & """, number " & value(2)
    status = reg.DeleteValue(valueName)
Next
status = reg.CD("..")
WScript.Echo "  removed (status " & reg.DeleteKey(demoKey) & "); removing it again: " & reg.DeleteKey(demoKey)

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

' cDIBSection and clsBitmap: a section, resampled (height first).
Dim dib : Set dib = Make("cDIBSection")
dib.Create 320, 200
dib.RandomiseBits True
Dim resampled : Set resampled = dib.Resample(500, 800)
WScript.Echo "DIB section:   " & dib.Width & " x " & dib.Height & " (" & dib.BytesPerScanLine & _
    " bytes a scan line), resampled to " & resampled.Width & " x " & resampled.Height
Dim masked : Set masked = Make("clsBitmap")
WScript.Echo "clsBitmap:     SetBitmap(0) = " & masked.SetBitmap(0)

' CComplexNumber: Init and Add change the object, the others return new ones.
Dim z : Set z = Make("CComplexNumber")
Dim w : Set w = z.Complex(3, 4)
Set z = z.Init(1, 2)
WScript.Echo "Complex:       (" & z.Text & ") * (" & w.Text & ") = " & z.Multiply(w).Text & _
    ", / = " & z.Divide(w).Text & ", 1 / (" & w.Text & ") = " & w.Reciprocal.Text & _
    ", |" & w.Text & "|^2 = " & w.Magnitude
WScript.Echo "               (" & z.Text & ").Add(" & w.Text & ") = " & z.Add(w).Text
On Error Resume Next
Set w = z.Divide2(0, 0)
WScript.Echo "               Divide2(0, 0): error " & Err.Number & " (" & Err.Description & ") from " & Err.Source
On Error GoTo 0

WScript.Echo "Classes created: " & created
