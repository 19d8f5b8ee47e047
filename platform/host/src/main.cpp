#include <csignal>
#include <iostream>
#include <optional>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <systemd/sd-daemon.h>

#include <host/commandline.hpp>
#include <host/freememory.hpp>
#include <host/surroundings.hpp>
#include <host/watchdog.hpp>

int main(int argc, char** argv)
{
  Tarvik::prepareProcess();
  int exitCode = 1;
  const auto commandLine = Tarvik::parseCommandLine(argc, argv, std::cout, std::cerr, exitCode);
  if (!commandLine)
    return exitCode;
  vu::log::setLevel(commandLine->logLevel);
  try
  {
    const vu::log::Background background;
    // Handled, not blocked: a blocked signal would stay so in the programs
    // that behaviors start. One that comes early waits in the set.
    boost::asio::io_context io;
    boost::asio::signal_set signals(io, SIGTERM, SIGINT);
    if (Tarvik::endsOnHangup())
      signals.add(SIGHUP);
    signals.async_wait([&io](auto, int) { io.stop(); });
    Tarvik::Host host(commandLine->host);
    host.start();
    std::cout << "tarvikd ready: " << host.url() << "/" << std::endl;
    sd_notify(0, "READY=1");
    const Tarvik::FreeMemory freeMemory(io);
    std::optional<Tarvik::Watchdog> watchdog;
    if (std::uint64_t limit = 0; sd_watchdog_enabled(0, &limit) > 0)
      watchdog.emplace(
          io, std::chrono::microseconds(limit), [&host](auto done) { host.probe(std::move(done)); }, [] { sd_notify(0, "WATCHDOG=1"); });
    io.run();
    // A second one of these ends the process at once; a terminal that goes
    // away sends SIGHUP more than once.
    signals.remove(SIGTERM);
    signals.remove(SIGINT);
    watchdog.reset();
    sd_notifyf(0, "STOPPING=1\nEXTEND_TIMEOUT_USEC=%lld", static_cast<long long>(host.stopLimit().count()));
    host.stop();
    return 0;
  }
  catch (const std::exception& error)
  {
    std::cerr << "tarvikd: " << error.what() << std::endl;
    return 1;
  }
}
