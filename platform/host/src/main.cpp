#include <csignal>
#include <iostream>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <systemd/sd-daemon.h>

#include <host/commandline.hpp>

int main(int argc, char** argv)
{
  int exitCode = 1;
  const auto commandLine = Tarvik::parseCommandLine(argc, argv, std::cout, std::cerr, exitCode);
  if (!commandLine)
    return exitCode;
  vu::log::setLevel(commandLine->logLevel);
  try
  {
    // Handled, not blocked: a blocked signal would stay so in the programs
    // that behaviors start. One that comes early waits in the set.
    boost::asio::io_context io;
    boost::asio::signal_set signals(io, SIGTERM, SIGINT);
    signals.async_wait([](auto, int) {});
    Tarvik::Host host(commandLine->host);
    host.start();
    std::cout << "tarvikd ready: " << host.url() << "/" << std::endl;
    sd_notify(0, "READY=1");
    io.run();
    signals.clear(); // a second one ends the process at once
    sd_notify(0, "STOPPING=1");
    host.stop();
    return 0;
  }
  catch (const std::exception& error)
  {
    std::cerr << "tarvikd: " << error.what() << std::endl;
    return 1;
  }
}
