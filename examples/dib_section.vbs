Option Explicit
' cDIBSection and clsBitmap: a section, resampled (height first).
Dim dib : Set dib = CreateObject("vxTypes32.cDIBSection")
dib.Create 320, 200
dib.RandomiseBits True
Dim resampled : Set resampled = dib.Resample(500, 800)
WScript.Echo "cDIBSection     " & dib.Width & " x " & dib.Height & " (" & dib.BytesPerScanLine & _
    " bytes a scan line), resampled to " & resampled.Width & " x " & resampled.Height
Dim masked : Set masked = CreateObject("vxTypes32.clsBitmap")
WScript.Echo "clsBitmap       SetBitmap(0) = " & masked.SetBitmap(0)
