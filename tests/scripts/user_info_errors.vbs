' Run with a 256-character user name: Logon cannot hold it and raises the
' system's error with the class's source and description.
Option Explicit
Dim failures : failures = 0
Sub Check(condition, what)
    If Not condition Then
        failures = failures + 1
        WScript.Echo "FAILED: " & what
    End If
End Sub

Dim user : Set user = CreateObject("vxTypes32.UserInfo")
Dim logon : logon = "unchanged"
On Error Resume Next
logon = user.Logon
Dim number : number = Err.Number
Dim source : source = Err.Source
Dim description : description = Err.Description
On Error GoTo 0
Check number = 122, "Err.Number is 122, got " & number
Check source = "UserInfo.Logon", "Err.Source, got " & source
Check description = "Failed to get user logon name.", "Err.Description, got " & description
Check logon = "unchanged", "nothing was assigned"

' The computer name is unaffected.
Check Len(user.ComputerName) > 0, "ComputerName still works"

WScript.Quit failures
