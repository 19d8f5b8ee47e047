#include <playpool.hpp>

#include <exception>

#include <vu/future.hpp>
#include <vu/log.hpp>

namespace ZB::FrameManager
{

PlayPool::PlayPool(std::size_t threads) : _context(static_cast<int>(threads)), _work(_context.get_executor())
{
  for (std::size_t i = 0; i < threads; ++i)
    _threads.emplace_back(
        [this]
        {
          for (;;)
            try
            {
              _context.run();
              return;
            }
            catch (...)
            {
              vu::log::error("framemanager", "PlayPool", vu::errorText(std::current_exception()));
            }
        });
}

PlayPool::~PlayPool()
{
  _context.stop();
  for (auto& thread : _threads)
    thread.join();
}

} // namespace ZB::FrameManager
