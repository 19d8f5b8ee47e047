function playBehavior (behavior) {
var xhr_object = null;
if (window.XMLHttpRequest) {
xhr_object = new XMLHttpRequest();
}
else if (window.ActiveXObject) {
xhr_object = new ActiveXObject("Microsoft.XMLHTTP");
}
else {
return;
}
var evalUrl = document.URL.substring(0, document.URL.lastIndexOf("/") + 1) + "?eval=";
xhr_object.onreadystatechange = function () {
if (xhr_object.readyState == 4 && xhr_object.status == 200) {
xhr_object.onreadystatechange = null;
xhr_object.open("GET", evalUrl + "ZBBehaviorManager.runBehavior('" + behavior + "')");
xhr_object.send(null);
}
}
xhr_object.open("GET", evalUrl + "ZBBehaviorManager.loadBehavior('" + behavior + "')");
xhr_object.send(null);
}
function stopBehavior (behavior) {
var xhr_object = null;
if (window.XMLHttpRequest) {
xhr_object = new XMLHttpRequest();
}
else if (window.ActiveXObject) {
xhr_object = new ActiveXObject("Microsoft.XMLHTTP");
}
else {
return;
}
var evalUrl = document.URL.substring(0, document.URL.lastIndexOf("/") + 1) + "?eval=";
xhr_object.onreadystatechange = function () {
if (xhr_object.readyState == 4 && xhr_object.status == 200) {
xhr_object.onreadystatechange = null;
xhr_object.open("GET", evalUrl + "ZBBehaviorManager.unloadBehavior('" + behavior + "')");
xhr_object.send(null);
}
}
xhr_object.open("GET", evalUrl + "ZBBehaviorManager.stopBehavior('" + behavior + "')");
xhr_object.send(null);
}
