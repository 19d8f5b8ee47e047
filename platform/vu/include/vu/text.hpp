#pragma once

#include <string>
#include <string_view>

#include <vu/value.hpp>

/// Foreign bytes made fit for messages, which travel as JSON.
namespace vu
{

/// In quotation marks, with what cannot be printed escaped or replaced.
inline std::string inQuotes(std::string_view text)
{
  return vu::Value(std::string(text)).dump(-1, ' ', false, vu::Value::error_handler_t::replace);
}

/// The same text with what is not UTF-8 replaced.
inline std::string validUtf8(std::string_view text) { return vu::Value::parse(inQuotes(text)).get<std::string>(); }

} // namespace vu
