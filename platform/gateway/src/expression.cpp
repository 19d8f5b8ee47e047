#include "expression.hpp"

#include <charconv>
#include <cmath>
#include <stdexcept>

namespace Tarvik
{

namespace
{

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isNameCharacter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isDigit(c) || c == '_'; }

class Parser
{
public:
  explicit Parser(std::string_view text) : _text(text) {}

  Expression expression()
  {
    Expression expression;
    expression.service = name("a service's name");
    expect('.');
    expression.method = name("a method's name");
    expect('(');
    if (!take(')'))
    {
      do
        expression.arguments.push_back(argument());
      while (take(','));
      expect(')');
    }
    skipBlanks();
    if (_position != _text.size())
      fail("nothing more");
    return expression;
  }

private:
  [[noreturn]] void fail(const std::string& wanted) const
  {
    throw std::invalid_argument("position " + std::to_string(_position + 1) + " of the expression: expected " + wanted + ", found " +
                                (_position < _text.size() ? "'" + std::string(1, _text[_position]) + "'" : "its end"));
  }

  void skipBlanks()
  {
    while (_position < _text.size() && (_text[_position] == ' ' || _text[_position] == '\t'))
      ++_position;
  }

  bool take(char c)
  {
    skipBlanks();
    if (_position == _text.size() || _text[_position] != c)
      return false;
    ++_position;
    return true;
  }

  void expect(char c)
  {
    if (!take(c))
      fail(std::string("'") + c + "'");
  }

  std::string_view word()
  {
    const auto begin = _position;
    while (_position < _text.size() && isNameCharacter(_text[_position]))
      ++_position;
    return _text.substr(begin, _position - begin);
  }

  std::string name(const char* wanted)
  {
    skipBlanks();
    if (_position == _text.size() || isDigit(_text[_position]) || !isNameCharacter(_text[_position]))
      fail(wanted);
    return std::string(word());
  }

  vu::Value argument()
  {
    skipBlanks();
    const char first = _position < _text.size() ? _text[_position] : '\0';
    if (first == '\'' || first == '"')
      return text();
    if (first == '-' || isDigit(first))
      return number();
    const auto begin = _position;
    const auto literal = word();
    if (literal == "true")
      return true;
    if (literal == "false")
      return false;
    if (literal == "null")
      return nullptr;
    _position = begin;
    fail("a text in quotes, a number, true, false or null");
  }

  std::string text()
  {
    const char quote = _text[_position++];
    std::string result;
    while (_position < _text.size() && _text[_position] != quote)
      result += _text[_position++] == '\\' ? escaped() : _text[_position - 1];
    if (_position == _text.size())
      fail(std::string("the closing ") + quote);
    ++_position;
    return result;
  }

  /// The character after a backslash.
  char escaped()
  {
    const char c = _position < _text.size() ? _text[_position] : '\0';
    switch (c)
    {
    case '\\':
    case '\'':
    case '"':
      break;
    case 'n':
      return ++_position, '\n';
    case 'r':
      return ++_position, '\r';
    case 't':
      return ++_position, '\t';
    default:
      fail("\\, ', \", n, r or t after a backslash");
    }
    return ++_position, c;
  }

  vu::Value number()
  {
    const auto begin = _position;
    const char* const first = _text.data() + begin;
    const char* const last = _text.data() + _text.size();
    std::int64_t integer = 0;
    double real = 0;
    const auto asInteger = std::from_chars(first, last, integer);
    const auto asReal = std::from_chars(first, last, real);
    if (asReal.ec != std::errc() || !std::isfinite(real))
      fail("a number in range");
    const bool whole = asInteger.ec == std::errc() && asInteger.ptr == asReal.ptr;
    _position = begin + static_cast<std::size_t>(asReal.ptr - first);
    if (_position < _text.size() && (isNameCharacter(_text[_position]) || _text[_position] == '.'))
      fail("the number's end");
    return whole ? vu::Value(integer) : vu::Value(real);
  }

  const std::string_view _text;
  std::size_t _position = 0;
};

int hexadecimal(char c)
{
  if (isDigit(c))
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

} // namespace

Expression Expression::parse(std::string_view text) { return Parser(text).expression(); }

std::string percentDecode(std::string_view text)
{
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i)
  {
    if (text[i] != '%')
    {
      result += text[i];
      continue;
    }
    const int high = i + 1 < text.size() ? hexadecimal(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? hexadecimal(text[i + 2]) : -1;
    if (high < 0 || low < 0)
      throw std::invalid_argument("position " + std::to_string(i + 1) + " of the address: expected two hexadecimal digits after '%'");
    result += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return result;
}

} // namespace Tarvik
