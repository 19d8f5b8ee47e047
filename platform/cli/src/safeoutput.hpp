#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace Tarvik
{

/// Writes texts of strangers to a terminal: what would steer it is written
/// out, "\u001b", and so is what turns the reading direction; newlines and
/// tabs stay. JSON stays JSON, since such characters stand in its strings
/// alone. What is not UTF-8 is replaced.
class SafeOutput : public std::ostream
{
public:
  explicit SafeOutput(std::ostream& target) : std::ostream(nullptr), _buffer(target) { rdbuf(&_buffer); }
  ~SafeOutput() override { flush(); }

private:
  class Buffer : public std::streambuf
  {
  public:
    explicit Buffer(std::ostream& target) : _target(target) {}

  protected:
    int_type overflow(int_type character) override;
    std::streamsize xsputn(const char* text, std::streamsize length) override;
    int sync() override;

  private:
    bool write(bool isEnd);

    std::ostream& _target;
    std::string _pending; ///< what is not written yet, of a character that has not come whole
  };

  Buffer _buffer;
};

} // namespace Tarvik
