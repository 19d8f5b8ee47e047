#include "pages.hpp"

#include <stdexcept>

#include <vu/caller.hpp>
#include <vu/error.hpp>
#include <vu/objectbuilder.hpp>

#include "expression.hpp"
#include "jsonrpc.hpp"

namespace Tarvik
{

namespace
{

using Kind = vu::ServiceError::Kind;

Page toPage(const vu::ServiceError& error)
{
  switch (error.kind())
  {
  case Kind::UnknownService:
  case Kind::UnknownMethod:
    return Page::text(404, error.description());
  case Kind::InvalidArguments:
    return Page::text(400, error.description());
  case Kind::NotAllowed:
    return Page::text(403, error.description());
  case Kind::Overloaded:
    return Page::text(503, error.description());
  case Kind::Service:
  case Kind::ConnectionLost:
    break;
  }
  return Page::text(500, error.description());
}

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

vu::Value carryOut(ZB::ZBBroker& broker, Expression& expression, const Client& client)
{
  const auto object = broker.session()->find(expression.service);
  if (!object)
    throw vu::ServiceError(expression.service, expression.method, "there is no service " + expression.service, Kind::UnknownService);
  const auto description = object->description();
  expression.method = currentName(description, expression.method);
  const auto role = client.identity.role;
  if (!mayCall(role, expression.service, expression.method))
    throw vu::ServiceError(expression.service, expression.method,
                           "the role " + std::string(roleName(role)) + " may not call " + expression.service + "." + expression.method,
                           Kind::NotAllowed);
  const vu::CallerScope caller(client.identity.name);
  const auto* const method = description.method(expression.method);
  const auto result = object->call(expression.method, expression.arguments);
  if (!method || !method->future || (result.isFinished() && result.hasError()))
    return method && method->future ? (result.value(), vu::Value()) : result.value();
  result.then(
      [logged = LoggedRequest(client, expression.service, expression.method, expression.arguments)](const vu::Future<vu::Value>& end)
      {
        if (end.hasError())
          logged.ended("begun, then: " + end.error());
      });
  return nullptr;
}

} // namespace

Page Pages::index(ZB::ZBBroker& broker)
{
  std::string links;
  const auto modules = broker.modules();
  for (const auto& name : modules)
    if (module(broker, name).status != 404)
      links += "<li><a href=\"/" + escaped(name) + "/\">" + escaped(name) + "</a></li>\n";
  Page page;
  page.body = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>Tarvik</title></head>\n<body><h1>Tarvik</h1>\n"
              "<p>The host is ready; " +
              std::to_string(modules.size()) + " modules are loaded.</p>\n" +
              (links.empty() ? "<p>None of them has a page.</p>\n" : "<ul>\n" + links + "</ul>\n") + "</body></html>\n";
  return page;
}

Page Pages::module(ZB::ZBBroker& broker, const std::string& name)
{
  try
  {
    Page page;
    page.body = broker.httpGet(name);
    page.policy = Page::modulePolicy;
    return page.body.empty() ? Page::text(404, "the module " + name + " has no page") : page;
  }
  catch (...)
  {
    return toPage(JsonRpc::toServiceError(std::current_exception(), name, "httpGet"));
  }
}

Page Pages::evaluate(ZB::ZBBroker& broker, const std::string& text, const Client& client)
{
  Expression expression;
  try
  {
    expression = Expression::parse(text);
  }
  catch (const std::invalid_argument& error)
  {
    return Page::text(400, error.what());
  }
  try
  {
    Page page{200, "application/json", JsonRpc::dump(carryOut(broker, expression, client))};
    LoggedRequest(client, expression.service, expression.method, expression.arguments).ended("ok");
    return page;
  }
  catch (...)
  {
    const auto error = JsonRpc::toServiceError(std::current_exception(), expression.service, expression.method);
    LoggedRequest(client, expression.service, expression.method, expression.arguments).ended(error.description());
    return toPage(error);
  }
}

Page Pages::upload(ZB::ZBBroker& broker, const std::filesystem::path& file, const Client& client,
                   const decltype(Gateway::Options::upload)& take)
{
  const LoggedRequest logged(client, "POST /packages");
  try
  {
    Page page{201, "application/json", JsonRpc::dump(take(broker, file, client.identity.name))};
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

Page Pages::metrics(ZB::ZBBroker& broker, const Metrics& metrics, const decltype(Gateway::Options::collectors)& collectors)
{
  MetricsText text;
  metrics.write(text);
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

Page Pages::failure(const std::exception_ptr& failure) { return toPage(JsonRpc::toServiceError(failure, "", "")); }

} // namespace Tarvik
