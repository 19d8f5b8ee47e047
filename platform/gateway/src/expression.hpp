#pragma once

#include <string>
#include <string_view>

#include <vu/value.hpp>

namespace Tarvik
{

/// One call, as a page's "?eval=" writes it.
struct Expression
{
  std::string service;
  std::string method;
  vu::Value arguments = vu::Value::array();

  /// Service.method(argument, ...): names of letters, digits and '_';
  /// arguments are texts in single or double quotes (with \\, \', \", \n, \r,
  /// \t), numbers, true, false and null. Throws std::invalid_argument that
  /// tells the position.
  static Expression parse(std::string_view text);
};

/// Turns %XX into bytes; '+' stays, since scripts leave it as it is. Throws
/// std::invalid_argument for a '%' without two hexadecimal digits.
std::string percentDecode(std::string_view text);

} // namespace Tarvik
