// UserInfo from JScript, created by ProgID.
var failures = 0;
function check(condition, what) {
    if (!condition) {
        failures++;
        WScript.Echo("FAILED: " + what);
    }
}

var user = new ActiveXObject("vxTypes32.UserInfo");
var logon = user.Logon;
check(typeof logon === "string" && logon.length > 0, "Logon is a non-empty string");
check(user.ComputerName.length > 0 && user.ComputerName.length <= 30, "ComputerName has 1 to 30 characters");
check(String(user.Logon) === logon, "Logon read twice agrees");
var anchor = new ActiveXObject("vxTypes32.Class_vxTypes32");
check(typeof anchor === "object", "Class_vxTypes32 can be created");

WScript.Quit(failures);
