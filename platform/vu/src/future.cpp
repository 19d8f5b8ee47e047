#include <vu/future.hpp>

namespace vu
{

std::string errorText(const std::exception_ptr& error)
{
  if (!error)
    return {};
  try
  {
    std::rethrow_exception(error);
  }
  catch (const std::exception& exception)
  {
    return exception.what();
  }
  catch (...)
  {
    return "an error of an unknown type";
  }
}

} // namespace vu
