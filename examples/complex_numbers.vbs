Option Explicit
' CComplexNumber: Init and Add change the object, the others return new ones.
Dim z : Set z = CreateObject("vxTypes32.CComplexNumber")
Dim w : Set w = z.Complex(3, 4)
Set z = z.Init(1, 2)
WScript.Echo "CComplexNumber  (" & z.Text & ") * (" & w.Text & ") = " & z.Multiply(w).Text & _
    ", / = " & z.Divide(w).Text & ", 1 / (" & w.Text & ") = " & w.Reciprocal.Text & _
    ", |" & w.Text & "|^2 = " & w.Magnitude
WScript.Echo "                (" & z.Text & ").Add(" & w.Text & ") = " & z.Add(w).Text
On Error Resume Next
Set w = z.Divide2(0, 0)
WScript.Echo "                Divide2(0, 0): error " & Err.Number & " (" & Err.Description & ") from " & Err.Source
On Error GoTo 0
