#include <iostream>

#include <cli/commandline.hpp>
#include <vu/log.hpp>

int main(int count, char** arguments)
{
  // An error is one line of the command's own.
  vu::log::setLevel(vu::log::Level::Silent);
  return static_cast<int>(Tarvik::runCommandLine({arguments + 1, arguments + count}, std::cout, std::cerr));
}
