#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include <vu/value.hpp>
#include <zb/zbmodule.hpp>

namespace ZB
{

/// The service "ZBPreferences": settings that outlive the process, one JSON
/// file "NAME.json" per name in the folder preferences/ under the root, which
/// the broker's configuration gives as "root".
///
/// A name is 1 to 128 of letters, digits, ".", "_" and "-" and does not begin
/// with a dot, so that it cannot leave the folder. Nothing is cached: an edit
/// of a file is seen by the next read. Writes are atomic and durable; of two at
/// once the last one stays, whole.
///
/// `flag` belongs to the interface that clients were written for; it means
/// nothing to this service, which always writes to the disk and always reads
/// from there. Every failure is a ZBError that names the file. Thread-safe.
class ZBPreferences : public ZBModule
{
public:
  /// Throws a ZBError when the folder cannot be made.
  ZBPreferences(std::shared_ptr<ZBBroker> broker, const std::string& name);
  ~ZBPreferences() override;

  /// A missing file is an error; so is one that holds no JSON, which is told
  /// with the offset of the fault, and logged.
  vu::Value readPrefFile(const std::string& fileName, const bool& flag);
  /// Refuses what JSON cannot hold: numbers that are not finite, texts that are
  /// not UTF-8. A damaged file is kept beside (storage::nameForDamaged()).
  void writePrefFile(const std::string& fileName, const vu::Value& settings, const bool& flag);
  /// A missing file is an error.
  void removePrefFile(const std::string& fileName);

private:
  std::filesystem::path pathOf(const char* method, const std::string& fileName) const;

  std::filesystem::path _directory;
  std::mutex _writes; ///< serialises writes with what is kept before them
};

} // namespace ZB
