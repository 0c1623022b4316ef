' UserInfo and the anchor class from VBScript, created by ProgID.
Option Explicit
Dim failures : failures = 0
Sub Check(condition, what)
    If Not condition Then
        failures = failures + 1
        WScript.Echo "FAILED: " & what
    End If
End Sub

Dim user : Set user = CreateObject("vxTypes32.UserInfo")
Dim logon : logon = user.Logon
Check TypeName(logon) = "String", "Logon is a String, got " & TypeName(logon)
Check Len(logon) > 0, "Logon is not empty"
Check user = logon, "the default member is Logon"
Check CStr(user) = user.Logon, "the default member read twice agrees"
Dim computer : computer = user.ComputerName
Check TypeName(computer) = "String", "ComputerName is a String"
Check Len(computer) > 0 And Len(computer) <= 30, "ComputerName has 1 to 30 characters: " & computer
Check user.ComputerName = computer, "ComputerName read twice agrees"

On Error Resume Next
user.NoSuchMember
Check Err.Number = 438, "an unknown member is refused: " & Err.Number
Err.Clear
On Error GoTo 0

Dim anchor : Set anchor = CreateObject("vxTypes32.Class_vxTypes32")
Check IsObject(anchor), "Class_vxTypes32 can be created"
Set anchor = Nothing

WScript.Quit failures
