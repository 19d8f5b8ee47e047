#include "pages.hpp"

#include <stdexcept>

#include <vu/error.hpp>
#include <vu/line.hpp>
#include <vu/objectbuilder.hpp>

#include "callrecord.hpp"
#include "expression.hpp"
#include "failureforms.hpp"
#include "jsonrpc.hpp"

namespace Tarvik
{

namespace
{

HttpAnswer answerOf(const vu::ServiceError& error) { return HttpAnswer::text(formOf(error.kind()).status, error.description()); }

std::string escaped(const std::string& text)
{
  std::string result;
  for (const char c : text)
    switch (c)
    {
    case '&':
      result += "&amp;";
      break;
    case '<':
      result += "&lt;";
      break;
    case '"':
      result += "&quot;";
      break;
    default:
      result += c;
    }
  return result;
}

/// Pages written against older releases call two methods under names that are
/// not published any more.
std::string currentName(const vu::ObjectDescription& description, const std::string& method)
{
  if (description.method(method))
    return method;
  if (method == "loadBehavior")
    return "preloadBehavior";
  return method == "unloadBehavior" ? "stopBehavior" : method;
}

} // namespace

HttpAnswer Pages::index(ZB::ZBBroker& broker)
{
  std::string links;
  const auto modules = broker.modules();
  for (const auto& name : modules)
    if (module(broker, name).status != 404)
      links += "<li><a href=\"/" + escaped(name) + "/\">" + escaped(name) + "</a></li>\n";
  HttpAnswer page;
  page.body = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>Tarvik</title></head>\n<body><h1>Tarvik</h1>\n"
              "<p>The host is ready; " +
              std::to_string(modules.size()) + " modules are loaded.</p>\n" +
              (links.empty() ? "<p>None of them has a page.</p>\n" : "<ul>\n" + links + "</ul>\n") + "</body></html>\n";
  return page;
}

HttpAnswer Pages::module(ZB::ZBBroker& broker, const std::string& name)
{
  try
  {
    HttpAnswer page;
    page.body = broker.httpGet(name);
    page.policy = HttpAnswer::modulePolicy;
    // Where nothing else tells it, its calls tell by this whose they are.
    page.headers.emplace_back("Referrer-Policy", "same-origin");
    return page.body.empty() ? HttpAnswer::text(404, "the module " + name + " has no page") : page;
  }
  catch (...)
  {
    return answerOf(JsonRpc::toServiceError(std::current_exception(), name, "httpGet"));
  }
}

HttpAnswer Pages::evaluate(ZB::ZBBroker& broker, const ZB::CallGate& calls, const std::string& text, const Client& client)
{
  ZB::Call call;
  try
  {
    auto expression = Expression::parse(text);
    call = {std::move(expression.service), std::move(expression.method), std::move(expression.arguments)};
  }
  catch (const std::invalid_argument& error)
  {
    return HttpAnswer::text(400, error.what());
  }
  try
  {
    if (const auto object = broker.session()->find(call.service))
      call.method = currentName(object->description(), call.method);
    return {200, "application/json", JsonRpc::dump(calls.begin(call, client.caller()))};
  }
  catch (...)
  {
    return answerOf(JsonRpc::toServiceError(std::current_exception(), call.service, call.method));
  }
}

bool Pages::isUrgent(ZB::ZBBroker& broker, const std::string& text)
{
  try
  {
    const auto expression = Expression::parse(text);
    const auto object = broker.session()->find(expression.service);
    return object && object->isUrgent(currentName(object->description(), expression.method));
  }
  catch (const std::invalid_argument&)
  {
    return false;
  }
}

HttpAnswer Pages::upload(ZB::ZBBroker& broker, const std::filesystem::path& file, const Client& client,
                         const decltype(Gateway::Options::upload)& take)
{
  const LoggedRequest logged(client, "POST /packages");
  try
  {
    HttpAnswer page{201, "application/json", JsonRpc::dump(take(broker, file, client.identity.name))};
    logged.ended("ok " + page.body);
    return page;
  }
  catch (...)
  {
    const auto thrown = std::current_exception();
    logged.ended(vu::errorText(thrown));
    return failure(thrown);
  }
}

HttpAnswer Pages::metrics(ZB::ZBBroker& broker, const Metrics& metrics, const Backlog& backlog,
                          const decltype(Gateway::Options::collectors)& collectors)
{
  MetricsText text;
  metrics.write(text);
  text.family("tarvik_gateway_unsent_bytes", "gauge", "What waits to be sent to all clients together.");
  text.sample({}, static_cast<double>(backlog.bytes()));
  text.family("tarvik_line_entries", "gauge", "Entries in the lines inside the host in which 10,000 or more have come to wait.");
  for (const auto& [line, entries] : vu::Line::tooLong())
    text.sample({{"line", line}}, static_cast<double>(entries));
  std::string whole = text.text();
  for (const auto& collect : collectors)
    try
    {
      MetricsText part;
      collect(broker, part);
      whole += part.text();
    }
    catch (...)
    {
      vu::log::warning("gateway", "metrics", "some figures are missing: " + vu::errorText(std::current_exception()));
    }
  return {200, std::string(MetricsText::contentType), std::move(whole)};
}

HttpAnswer Pages::failure(const std::exception_ptr& failure) { return answerOf(JsonRpc::toServiceError(failure, "", "")); }

} // namespace Tarvik
