' Run with a 256-character user name: Logon cannot hold it and raises the
' system's error with the class's source and description.
Option Explicit
Dim user, logon : Set user = CreateObject("vxTypes32.UserInfo") : logon = "unchanged"
On Error Resume Next : logon = user.Logon
Dim seen : seen = Err.Number & "|" & Err.Source & "|" & Err.Description & "|" & logon
On Error GoTo 0
If seen <> "122|UserInfo.Logon|Failed to get user logon name.|unchanged" Then
    WScript.Echo "FAILED: " & seen
    WScript.Quit 1
End If
If Len(user.ComputerName) = 0 Then WScript.Echo "FAILED: ComputerName" : WScript.Quit 1
WScript.Echo "PASS: user_info_errors.vbs"
