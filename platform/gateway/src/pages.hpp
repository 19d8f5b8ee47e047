#pragma once

#include <memory>
#include <string>

#include <zb/zbbroker.hpp>

#include "dispatcher.hpp"

namespace Tarvik
{

struct Page
{
  unsigned status = 200;
  std::string type = "text/html; charset=utf-8";
  std::string body;

  static Page text(unsigned status, std::string body) { return {status, "text/plain; charset=utf-8", std::move(body) + "\n"}; }
};

/// What browsers get to see. All functions may block on a module and run on
/// the broker's pool.
namespace Pages
{

/// The modules that have pages.
Page index(ZB::ZBBroker& broker);

/// A module's own page.
Page module(ZB::ZBBroker& broker, const std::string& name);

/// Carries out the call that `expression` (see Expression) writes and tells
/// its result as JSON. A method that gives a future is answered with null as
/// soon as it is under way.
Page evaluate(ZB::ZBBroker& broker, const std::string& expression, const Client& client);

} // namespace Pages

} // namespace Tarvik
