' UserInfo: who is logged on, and the computer's name. Logon is the default
' member, so the object itself reads as the logon name.
Option Explicit
Dim bits : bits = "32"
If CreateObject("WScript.Shell").ExpandEnvironmentStrings("%PROCESSOR_ARCHITECTURE%") = "AMD64" Then bits = "64"
WScript.Echo "Host            a " & bits & "-bit process, " & WScript.FullName
Dim user : Set user = CreateObject("vxTypes32.UserInfo")
WScript.Echo "UserInfo        logon name " & user.Logon & ", computer " & user.ComputerName & _
    ", default member " & user

' The anchor class has no members; creating it shows the library is there.
Dim anchor : Set anchor = CreateObject("vxTypes32.Class_vxTypes32")
WScript.Echo "Class_vxTypes32 created"
