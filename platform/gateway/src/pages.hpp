#pragma once

#include <exception>
#include <filesystem>
#include <string>

#include <gateway/gateway.hpp>

#include "client.hpp"
#include "httpanswer.hpp"
#include "metrics.hpp"

namespace Tarvik
{

/// What browsers get to see. All functions may block on a module and run on
/// the broker's pool.
namespace Pages
{

/// The modules that have pages.
HttpAnswer index(ZB::ZBBroker& broker);

/// A module's own page.
HttpAnswer module(ZB::ZBBroker& broker, const std::string& name);

/// Carries out the call that `expression` (see Expression) writes and tells
/// its result as JSON. A method that gives a future is answered with null as
/// soon as it is under way.
HttpAnswer evaluate(ZB::ZBBroker& broker, const ZB::CallGate& calls, const std::string& expression, const Client& client);

/// Whether the call that `expression` writes ends something. Does not block.
bool isUrgent(ZB::ZBBroker& broker, const std::string& expression);

/// Hands a file that the client has sent to whoever takes it: 201 with what
/// that one tells.
HttpAnswer upload(ZB::ZBBroker& broker, const std::filesystem::path& file, const Client& client,
                  const decltype(Gateway::Options::upload)& take);

/// The gateway's figures and those of the collectors.
HttpAnswer metrics(ZB::ZBBroker& broker, const Metrics& metrics, const Backlog& backlog,
                   const decltype(Gateway::Options::collectors)& collectors);

/// The answer for what has been thrown.
HttpAnswer failure(const std::exception_ptr& failure);

} // namespace Pages

} // namespace Tarvik
