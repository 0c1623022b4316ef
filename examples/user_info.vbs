' UserInfo: who is logged on, and the computer's name. Logon is the default
' member, so the object itself reads as the logon name.
Option Explicit
Dim user : Set user = CreateObject("vxTypes32.UserInfo")
WScript.Echo "UserInfo        logon name " & user.Logon & ", computer " & user.ComputerName & _
    ", default member " & user

' The anchor class has no members; creating it shows the library is there.
Dim anchor : Set anchor = CreateObject("vxTypes32.Class_vxTypes32")
WScript.Echo "Class_vxTypes32 created"
