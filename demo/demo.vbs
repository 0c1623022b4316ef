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

WScript.Echo "Classes created: " & created
