' cDIBSection and clsBitmap from VBScript, created by ProgID.
Option Explicit
Dim failures : failures = 0
Sub Check(condition, what)
    If Not condition Then
        failures = failures + 1
        WScript.Echo "FAILED: " & what
    End If
End Sub

Dim dib : Set dib = CreateObject("vxTypes32.cDIBSection")
Check dib.Width = 0 And dib.Height = 0 And dib.hdc = 0, "a new section reads 0"
Check dib.Create(100, 50) = True, "Create(100, 50) returns True"
Check dib.Width = 100 And dib.Height = 50, "100 x 50, got " & dib.Width & " x " & dib.Height
Check dib.BytesPerScanLine = 300, "300 bytes a scan line, got " & dib.BytesPerScanLine
Check dib.hDib <> 0 And dib.DIBSectionBitsPtr <> 0, "a section and its pixels"
dib.RandomiseBits
dib.RandomiseBits True

Dim larger : Set larger = dib.Resample(80, 120)
Check Not larger Is Nothing, "Resample gives an object"
Check larger.Width = 120 And larger.Height = 80, "height first: 120 x 80, got " & larger.Width & " x " & larger.Height
Check larger.hDib <> dib.hDib, "a section of its own"
Dim copy : Set copy = dib.Resample(50, 100)
Check copy.Width = 100 And copy.Height = 50, "the same size gives a copy"
Check dib.Width = 100 And dib.Height = 50, "the source is unchanged"
Dim refused : Set refused = dib.Resample(0, 0)
Check refused Is Nothing, "a size the platform refuses gives Nothing"

dib.ClearUp
Check dib.hdc = 0 And dib.hDib = 0 And dib.Width = 100, "ClearUp releases and keeps the size"

On Error Resume Next
Dim thin : Set thin = CreateObject("vxTypes32.cDIBSection")
thin.Create 1, 5
Dim none : Set none = thin.Resample(10, 10)
Check Err.Number = 9, "a source 1 pixel wide raises 9, got " & Err.Number
Check Err.Source = "cDIBSection.Resample", "the error's source, got " & Err.Source
Err.Clear
Dim wide : wide = thin.Create(715827882, 1)
Check Err.Number = 6, "an overflowing width raises 6, got " & Err.Number
Err.Clear
On Error GoTo 0

Dim masked : Set masked = CreateObject("vxTypes32.clsBitmap")
Check masked.ImageDC = 0 And masked.Width = 0 And masked.Height = 0, "a new clsBitmap reads 0"
Dim noBitmap : noBitmap = 0
Check masked.SetBitmap(noBitmap) = False, "SetBitmap(0) returns False"
Check masked.ImageDC = 0, "and leaves no image DC"
Check larger.CopyToClipboard(False) = True, "CopyToClipboard(False) copies"

WScript.Quit failures
