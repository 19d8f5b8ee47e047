#include <behaviormanager/behaviormanager.hpp>

namespace ZB::BehaviorManager
{

namespace
{

/// One click: `first` is called, then, when that has gone well, `second`.
std::string clickFunction(const std::string& name, const std::string& first, const std::string& second)
{
  return "function " + name +
         R"js( (behavior) {
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
xhr_object.open("GET", evalUrl + "ZBBehaviorManager.)js" +
         second + R"js(('" + behavior + "')");
xhr_object.send(null);
}
}
xhr_object.open("GET", evalUrl + "ZBBehaviorManager.)js" +
         first + R"js(('" + behavior + "')");
xhr_object.send(null);
}
)js";
}

/// A section of the page: nothing where there are no rows.
template <typename Row>
std::string table(const std::string& heading, const std::string& head, const std::vector<std::string>& names, const Row& row,
                  const std::string& end)
{
  if (names.empty())
    return {};
  std::string html = "<i><u>" + heading + R"(</u></i><br><table cellspacing="5" cellpadding="5"><tr><td><b>Name</b></td>)" + head + "</tr>";
  for (const auto& name : names)
    html += row(name);
  return html + "</table>" + end;
}

std::string linkRow(const std::string& function, const std::string& name)
{
  return "<tr><td><a href=\"javascript:" + function + "('" + name + "');\">" + name + "</a></td></tr>";
}

} // namespace

std::string ZBBehaviorManager::javaScriptCode() const
{
  return clickFunction("playBehavior", "loadBehavior", "runBehavior") + clickFunction("stopBehavior", "stopBehavior", "unloadBehavior");
}

// Names go into the page as they are: the package manager lets none in that
// could break it.
std::string ZBBehaviorManager::httpGet()
{
  const std::string gap = "<br><br><br>";
  std::string html = "<html><body><script>" + javaScriptCode() + "</script>";
  html += table(
      "Loaded behaviors", "<td><b>Loaded by dependency</b></td>", getLoadedBehaviors(),
      [](const std::string& name) { return "<tr><td>" + name + "</td><td></td></tr>"; }, gap);
  html += table(
      "Running behaviors", "", getRunningBehaviors(), [](const std::string& name) { return linkRow("stopBehavior", name); }, gap);
  html += table(
      "Installed behaviors", "", _catalogue.xGetBehaviorsInPackages(InstallerAll),
      [](const std::string& name) { return linkRow("playBehavior", name); }, "");
  return html + "</body></html>";
}

} // namespace ZB::BehaviorManager
