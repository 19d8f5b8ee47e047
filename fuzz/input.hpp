#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

/// A folder in memory for targets that read files; it goes with the process.
class ScratchFolder
{
public:
  ScratchFolder()
  {
    std::string pattern = "/dev/shm/tarvik-fuzz-XXXXXX";
    if (!mkdtemp(pattern.data()))
      throw std::runtime_error("cannot create " + pattern);
    _path = pattern;
  }
  ~ScratchFolder() { std::filesystem::remove_all(_path); }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::filesystem::path& path() const { return _path; }

private:
  std::filesystem::path _path;
};

inline std::string asText(const std::uint8_t* data, std::size_t size) { return {reinterpret_cast<const char*>(data), size}; }

inline void writeInput(const std::filesystem::path& file, const std::uint8_t* data, std::size_t size)
{
  std::ofstream(file, std::ios::binary | std::ios::trunc) << asText(data, size);
}

/// What a reader promises must hold.
inline void require(bool promise)
{
  if (!promise)
    std::abort();
}
