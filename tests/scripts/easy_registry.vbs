' clsEasyRegistry from VBScript: ValueOf with its ByRef kind and status, the
' arrays the members return, and statuses instead of errors. Works in a
' scratch key of its own under HKEY_CURRENT_USER. Wine's VBScript indexes
' only arrays of Variants: the String() lists and the Byte() element are
' told apart by VarType and passed on, not indexed.
Option Explicit
' Wine's cscript ends a script that raises an error with exit code 0, so
' errors are trapped and counted: any member that raised would show.
On Error Resume Next
Dim failures : failures = 0
Sub Check(condition, what)
    If Err.Number <> 0 Or Not condition Then failures = failures + 1 : WScript.Echo "FAILED: " & what & " " & Err.Number
    Err.Clear
End Sub

Const scratch = "\HKEY_CURRENT_USER\Software\vxTypes32 script tests"
Dim reg : Set reg = CreateObject("vxTypes32.clsEasyRegistry")
Dim status : status = reg.CD("\HKEY_CURRENT_USER\Software") : status = reg.MakeKey("vxTypes32 script tests")
Check reg.CD(scratch) = 0 And reg.CurrentKey = UCase(scratch), "CD into the scratch key, at " & reg.CurrentKey

' The kind is read through its variable, the status comes back through lRet.
Dim kind, ret, value
kind = 0 : reg.ValueOf("text", kind, ret) = "abc"
Check ret = 0, "writing text: lRet " & ret
kind = 2 : reg.ValueOf("number", kind, ret) = CDbl(305419896)
Check ret = 0, "writing a Double as a number: lRet " & ret
reg.ValueOf("long", kind, ret) = 305419896
Check ret = 3, "a VBScript Long is not a Double: lRet " & ret
kind = 3 : reg.ValueOf("text", kind, ret) = "abc"
Check ret = 4, "kind 3: lRet " & ret
kind = 99 : ret = 12345 : value = reg.ValueOf("number", kind, ret)
Check ret = 0 And kind = 2 And LBound(value) = 0 And UBound(value) = 2, "reading the number: " & ret & ", kind " & kind
Check value(0) = "12345678" And value(2) = 305419896 And VarType(value(2)) = vbDouble, "the number's elements"
Check VarType(value(1)) = vbArray + vbByte, "element 1 is a Byte(), VarType " & VarType(value(1))
kind = 1 : reg.ValueOf("bytes", kind, ret) = value(1) : value = reg.ValueOf("bytes", kind, ret)
Check ret = 0 And kind = 1 And value(0) = "78 56 34 12", "the Byte() element written back: " & value(0)

Dim list
Check reg.DirValue(list) = 0 And VarType(list) = vbArray + vbString, "DirValue gives a String array"
Check reg.MakeKey("sub") = 0 And reg.CD("sub") = 0 And reg.DirKey(list) = 0 And IsNull(list), "DirKey of no subkeys: Null"

status = reg.CD(scratch)
Check reg.DeleteKey("sub") = 0 And reg.CD("..") = 0 And reg.DeleteKey("vxTypes32 script tests") = 0, "clean up"
If failures = 0 Then WScript.Echo "PASS: easy_registry.vbs"
WScript.Quit failures
