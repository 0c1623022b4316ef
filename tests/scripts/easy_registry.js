// clsEasyRegistry from JScript. JScript passes every argument by value, so
// the ByRef kind and status of ValueOf and the lists of DirKey and DirValue
// never come back to it: it sees the statuses that members return, and the
// read result through VBArray. (Wine's JScript cannot open the Byte()
// element inside that result as a VBArray.)
var failures = 0;
function check(condition, what) {
    if (!condition) {
        failures++;
        WScript.Echo("FAILED: " + what);
    }
}

var failure = -2147221248;
var scratchParent = "\\HKEY_CURRENT_USER\\Software\\vxTypes32 script tests";
var scratchName = "script js";

// Wine's cscript ends a script that throws with exit code 0: count it.
try {
    var reg = new ActiveXObject("vxTypes32.clsEasyRegistry");
    reg.CD("\\HKEY_CURRENT_USER\\Software");
    reg.MakeKey("vxTypes32 script tests");
    reg.CD("vxTypes32 script tests");
    reg.DeleteKey(scratchName);
    check(reg.MakeKey(scratchName) === 0, "MakeKey of the scratch key");
    check(reg.CD(scratchName) === 0, "CD into the scratch key");
    check(reg.CurrentKey === (scratchParent + "\\" + scratchName).toUpperCase(), "CurrentKey, got " + reg.CurrentKey);

    // Writing through the property's assignment form.
    reg.ValueOf("text", 0, 0) = "abc";
    reg.ValueOf("number", 2, 0) = 4294967295;
    // A whole number in the Long range travels as a Long and is refused.
    reg.ValueOf("long", 2, 0) = 305419896;

    var text = new VBArray(reg.ValueOf("text", 0, 0));
    check(text.dimensions() === 1 && text.lbound(1) === 0 && text.ubound(1) === 2, "three elements 0 To 2");
    var elements = text.toArray();
    check(elements[0] === "abc", "element 0 of the text, got " + elements[0]);
    check(elements[2] === 0, "element 2 of the text, got " + elements[2]);

    var number = new VBArray(reg.ValueOf("number", 0, 0)).toArray();
    check(number[0] === "FFFFFFFF", "element 0 of the number, got " + number[0]);
    check(number[2] === 4294967295, "element 2 of the number, got " + number[2]);

    check(reg.ValueOf("long", 0, 0) === undefined, "the refused Long was not written: Empty");
    check(reg.ValueOf("no such value", 0, 0) === undefined, "a missing name gives Empty");

    var list = "kept";
    check(reg.DirValue(list) === 0, "DirValue's status");
    check(reg.DirKey(list) === 0, "DirKey's status");

    check(reg.CD("missing") === failure, "CD to a missing key");
    check(reg.ValueOf("text", 0, 0) === null, "reading where the opening fails gives Null");
    check(reg.CD("..") === 0, "CD .. from the failed path");
    check(reg.DeleteValue("text") === 0 && reg.DeleteValue("number") === 0, "DeleteValue");
    check(reg.CD("\\HKLM") === 2, "an unknown root");
    check(reg.CD("..") === 1, "'..' without a current key");
    check(reg.DirValue(list) === 94, "DirValue without a current key");

    check(reg.CD(scratchParent) === 0 && reg.DeleteKey(scratchName) === 0, "DeleteKey of the scratch key");
    reg.CD("..");
    reg.DeleteKey("vxTypes32 script tests");
} catch (e) {
    failures++;
    WScript.Echo("FAILED: an error reached the script: " + e.number + " " + e.message);
}

WScript.Quit(failures);
