#include "interrupt.hpp"

#include <pthread.h>

namespace Tarvik
{

Interrupt::Interrupt(std::function<void()> callback)
{
  sigemptyset(&_signals);
  sigaddset(&_signals, SIGINT);
  sigaddset(&_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &_signals, &_previous);
  _thread = std::jthread(
      [signals = _signals, callback = std::move(callback)](const std::stop_token& stop)
      {
        int signal = 0;
        while (sigwait(&signals, &signal) == 0 && !stop.stop_requested())
          callback();
      });
}

Interrupt::~Interrupt()
{
  _thread.request_stop();
  // It waits in sigwait(), which a signal to that thread alone ends.
  pthread_kill(_thread.native_handle(), SIGTERM);
  _thread.join();
  pthread_sigmask(SIG_SETMASK, &_previous, nullptr);
}

} // namespace Tarvik
