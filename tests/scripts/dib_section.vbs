' cDIBSection and clsBitmap from VBScript, created by ProgID: optional
' arguments left out, objects and Nothing returned, errors raised.
Option Explicit
Dim failures : failures = 0
Sub Check(condition, what)
    If Not condition Then failures = failures + 1 : WScript.Echo "FAILED: " & what
End Sub

Dim dib : Set dib = CreateObject("vxTypes32.cDIBSection")
Check dib.Width = 0 And dib.hdc = 0, "a new section reads 0"
Check dib.Create(100, 50) = True And dib.BytesPerScanLine = 300 And dib.hDib <> 0, "Create(100, 50)"
dib.RandomiseBits
Dim larger : Set larger = dib.Resample(80, 120)
Check larger.Width = 120 And larger.Height = 80 And larger.hDib <> dib.hDib, "height first, a section of its own"
Check dib.Resample(0, 0) Is Nothing, "a size the platform refuses gives Nothing"
dib.ClearUp
Check dib.hdc = 0 And dib.hDib = 0 And dib.Width = 100, "ClearUp releases and keeps the size"

On Error Resume Next
Dim thin : Set thin = CreateObject("vxTypes32.cDIBSection") : thin.Create 1, 5
Set thin = thin.Resample(10, 10)
Check Err.Number = 9 And Err.Source = "cDIBSection.Resample", "a source 1 pixel wide: " & Err.Number & " " & Err.Source
Err.Clear : thin.Create 715827882, 1
Check Err.Number = 6, "an overflowing width raises 6, got " & Err.Number
On Error GoTo 0

Dim masked, noBitmap : Set masked = CreateObject("vxTypes32.clsBitmap") : noBitmap = 0
Check masked.SetBitmap(noBitmap) = False And masked.ImageDC = 0, "SetBitmap(0) returns False"
Check larger.CopyToClipboard(False) = True, "CopyToClipboard(False) copies"
If failures = 0 Then WScript.Echo "PASS: dib_section.vbs"
WScript.Quit failures
