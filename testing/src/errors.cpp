#include <testing/errors.hpp>

#include <exception>

#include <gtest/gtest.h>

namespace TestSupport
{

vu::ServiceError serviceErrorOf(const std::function<void()>& action)
{
  try
  {
    action();
  }
  catch (const vu::ServiceError& error)
  {
    return error;
  }
  ADD_FAILURE() << "no ServiceError";
  return {"", "", ""};
}

std::string errorOf(const std::function<void()>& action)
{
  try
  {
    action();
  }
  catch (const std::exception& error)
  {
    return error.what();
  }
  return "no error";
}

} // namespace TestSupport
