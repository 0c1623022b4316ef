// Run with a 256-character user name: Logon raises the system's error.
// JScript's error object carries the number and description, not the source.
var failures = 0;
function check(condition, what) {
    if (!condition) {
        failures++;
        WScript.Echo("FAILED: " + what);
    }
}

var user = new ActiveXObject("vxTypes32.UserInfo");
var caught = null;
try {
    var logon = user.Logon;
} catch (e) {
    caught = e;
}
check(caught !== null, "Logon raised an error");
if (caught !== null) {
    check((caught.number & 0xFFFF) === 122 && (caught.number >>> 16) === 0x800A, "number is 0x800A007A, got " + caught.number);
    check(caught.description === "Failed to get user logon name.", "description, got " + caught.description);
}

WScript.Quit(failures);
