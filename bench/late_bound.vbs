' What a late-bound property read costs a VBScript client.
Option Explicit
Const calls = 20000
Dim user : Set user = CreateObject("vxTypes32.UserInfo")
Dim i, value, start, loopOnly, withCall

start = Timer
For i = 1 To calls : value = i : Next
loopOnly = Timer - start

start = Timer
For i = 1 To calls : value = user.Logon : Next
withCall = Timer - start

WScript.Echo "  Logon late-bound from VBScript:    " & FormatNumber((withCall - loopOnly) / calls * 1E9, 1) & " ns"
