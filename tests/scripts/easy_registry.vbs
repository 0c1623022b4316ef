' clsEasyRegistry from VBScript: ValueOf with its ByRef kind and status,
' the arrays the members return, and statuses instead of errors. Works in
' a scratch key of its own under HKEY_CURRENT_USER.
'
' Wine's VBScript can index only arrays of Variants: the read result is one,
' but the String() lists of DirKey and DirValue and the Byte() element of a
' read can be told apart (VarType, IsArray) and passed on, not indexed.
Option Explicit
' Wine's cscript ends a script that raises an error with exit code 0, so
' errors are trapped here and counted: any member that raised would show.
On Error Resume Next
Dim failures : failures = 0
Sub Check(condition, what)
    If Err.Number <> 0 Then
        failures = failures + 1
        WScript.Echo "FAILED: error " & Err.Number & " " & Err.Description & " before: " & what
        Err.Clear
    End If
    If Not condition Then
        failures = failures + 1
        WScript.Echo "FAILED: " & what
    End If
End Sub

Const failure = -2147221248
Const scratchParent = "\HKEY_CURRENT_USER\Software\vxTypes32 script tests"
Const scratchName = "script vbs"

Dim reg : Set reg = CreateObject("vxTypes32.clsEasyRegistry")

' Reset the scratch key.
Dim status
status = reg.CD("\HKEY_CURRENT_USER\Software")
status = reg.MakeKey("vxTypes32 script tests\" & scratchName)
status = reg.CD(scratchParent & "\" & scratchName)
status = reg.DeleteKey("sub")
status = reg.CD("..")
status = reg.DeleteKey(scratchName)
Check reg.MakeKey(scratchName) = 0, "MakeKey of the scratch key"
Check reg.CD(scratchName) = 0, "CD into the scratch key"
Check reg.CurrentKey = UCase(scratchParent & "\" & scratchName), "CurrentKey, got " & reg.CurrentKey

' Writing: the kind is read through its variable, the status comes back in lRet.
Dim kind, ret
kind = 0 : ret = 12345
reg.ValueOf("text", kind, ret) = "abc"
Check ret = 0, "writing text: lRet 0, got " & ret
kind = 2 : ret = 12345
reg.ValueOf("number", kind, ret) = CDbl(305419896)
Check ret = 0, "writing a Double as a number: lRet 0, got " & ret
reg.ValueOf("long", kind, ret) = 305419896
Check ret = 3, "a VBScript Long is not a Double: lRet 3, got " & ret
kind = 3
reg.ValueOf("text", kind, ret) = "abc"
Check ret = 4, "kind 3: lRet 4, got " & ret

' Reading: kind and status come back through the variables.
Dim value
kind = 99 : ret = 12345
value = reg.ValueOf("number", kind, ret)
Check ret = 0 And kind = 2, "reading the number: lRet " & ret & ", kind " & kind
Check IsArray(value), "the read result is an array"
Check LBound(value) = 0 And UBound(value) = 2, "three elements 0 To 2"
Check value(0) = "12345678", "element 0, got " & value(0)
Check value(2) = 305419896 And VarType(value(2)) = vbDouble, "element 2 is the Double 305419896"
Check VarType(value(1)) = vbArray + vbByte, "element 1 is a Byte(), VarType " & VarType(value(1))

' The Byte() element goes back as bytes.
kind = 1
reg.ValueOf("bytes", kind, ret) = value(1)
Check ret = 0, "writing the Byte() element: lRet 0, got " & ret
value = reg.ValueOf("bytes", kind, ret)
Check ret = 0 And kind = 1, "reading bytes: lRet " & ret & ", kind " & kind
Check value(0) = "78 56 34 12", "bytes rendered, got " & value(0)

value = reg.ValueOf("text", kind, ret)
Check kind = 0 And value(0) = "abc" And value(2) = 0, "reading text"

kind = 99
value = reg.ValueOf("no such value", kind, ret)
Check ret = failure And IsEmpty(value) And kind = 99, "a missing name: lRet " & ret

' Listings.
Dim list
Check reg.DirValue(list) = 0, "DirValue"
Check VarType(list) = vbArray + vbString, "DirValue gives a String array, VarType " & VarType(list)
Check reg.MakeKey("sub") = 0, "MakeKey sub"
Check reg.DirKey(list) = 0, "DirKey"
Check VarType(list) = vbArray + vbString, "DirKey gives a String array, VarType " & VarType(list)
Check reg.CD("sub") = 0, "CD sub"
Check reg.DirKey(list) = 0 And IsNull(list), "DirKey of a key without subkeys gives Null"
Check reg.DirValue(list) = 0 And IsNull(list), "DirValue of a key without values gives Null"

' Failures are statuses, never errors.
Check reg.CD("missing") = failure, "CD to a missing key"
Check reg.CurrentKey = UCase(scratchParent & "\" & scratchName & "\sub\missing"), "the failed path is kept"
value = reg.ValueOf("text", kind, ret)
Check IsNull(value) And ret = failure, "reading where the opening fails gives Null"
Check reg.CD("..") = 0, "CD .. from the failed path"
Check reg.CD("\HKLM") = 2, "an unknown root"
Check reg.CD("..") = 1, "'..' without a current key"
list = "kept"
Check reg.DirValue(list) = 94 And list = "kept", "DirValue without a current key"
Check reg.DirKey(list) = 0, "DirKey without a current key"
Check reg.DeleteKey("x") = failure, "DeleteKey without a current key"

' Remove the scratch key.
status = reg.CD(scratchParent & "\" & scratchName)
Check reg.DeleteKey("sub") = 0, "DeleteKey sub"
Check reg.DeleteValue("text") = 0, "DeleteValue"
status = reg.CD("..")
Check reg.DeleteKey(scratchName) = 0, "DeleteKey of the scratch key"
status = reg.CD("..")
status = reg.DeleteKey("vxTypes32 script tests")
Check True, "the end"

WScript.Quit failures
