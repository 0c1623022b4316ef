' Every class by ProgID from a script host of either bitness, served by the
' DLL of that bitness: a handle property is a Long (vbLong) in a 32-bit
' process and a LongLong (20) in a 64-bit one.
Option Explicit
Dim failures : failures = 0
Sub Check(condition, what)
    If Not condition Then failures = failures + 1 : WScript.Echo "FAILED: " & what
End Sub

Dim handleType : handleType = vbLong
If CreateObject("WScript.Shell").ExpandEnvironmentStrings("%PROCESSOR_ARCHITECTURE%") = "AMD64" Then handleType = 20

' The class names, one a line: the file the build writes from the class table.
Dim listing : Set listing = CreateObject("Scripting.FileSystemObject").OpenTextFile(WScript.Arguments(0))
Dim name, made, count : count = 0
Do Until listing.AtEndOfStream
    name = listing.ReadLine
    Set made = CreateObject("vxTypes32." & name)
    ' Wine's VBScript names the interface, Windows' the class.
    Check TypeName(made) = name Or TypeName(made) = "_" & name, name & " is " & TypeName(made)
    count = count + 1
Loop
Check count > 0, "no class listed"

Dim dib : Set dib = CreateObject("vxTypes32.cDIBSection")
Check dib.Create(4, 3), "Create"
Check VarType(dib.hdc) = handleType, "hdc travels as " & VarType(dib.hdc)
Check VarType(dib.DIBSectionBitsPtr) = handleType, "the pixel address travels as " & VarType(dib.DIBSectionBitsPtr)
Check dib.DIBSectionBitsPtr <> 0, "a pixel address"
Dim copy : Set copy = dib.Resample(6, 8) : Check copy.Width = 8 And copy.Height = 6, "Resample"
Dim bitmap : Set bitmap = CreateObject("vxTypes32.clsBitmap")
Check VarType(bitmap.ImageDC) = handleType, "ImageDC travels as " & VarType(bitmap.ImageDC)
Dim z : Set z = CreateObject("vxTypes32.CComplexNumber")
Check z.Init(3, -4).Text = "3-4i", "Text"
Check CreateObject("vxTypes32.UserInfo").Logon <> "", "Logon"

If failures = 0 Then WScript.Echo "PASS: every_class.vbs, handles of VarType " & handleType
WScript.Quit failures
