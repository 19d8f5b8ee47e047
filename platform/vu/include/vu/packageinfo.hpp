#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <vu/valuefwd.hpp>

namespace vu
{

/// A behavior as its package's manifest describes it. Cheap to copy: copies
/// share their data, which does not change.
///
/// As a value: {"path": string, "nature": string, "tags": {locale: [string]}}.
class BehaviorInfo
{
public:
  BehaviorInfo() = default;
  BehaviorInfo(std::string path, std::string nature = {}, std::map<std::string, std::list<std::string>> tags = {});
  /// Missing members are empty. Throws ConversionError for a value of another shape.
  explicit BehaviorInfo(const Value& value);

  /// Relative to the package's directory; "." for the directory itself.
  std::string path() const;
  /// In the manifest's order; empty for a locale without tags.
  std::list<std::string> tags(const std::string& locale) const;
  std::string nature() const;
  Value toValue() const;

private:
  struct Data;
  std::shared_ptr<const Data> _data;
};

/// An installed package. Cheap to copy, like BehaviorInfo.
///
/// As a value: {"uuid": string, "version": string, "installer": string,
/// "path": string (its directory, absolute), "names": {locale: string},
/// "descriptions": {locale: string}, "behaviors": [BehaviorInfo],
/// "may": [string]}.
class PackageInfo
{
public:
  struct Data
  {
    std::string uuid;
    std::string version;
    std::string installer;
    std::string path;
    std::map<std::string, std::string> names;
    std::map<std::string, std::string> descriptions;
    std::list<BehaviorInfo> behaviors;
    std::vector<std::string> may; ///< what it asks to call, as its manifest writes it
  };

  PackageInfo() = default;
  explicit PackageInfo(Data data);
  /// "uuid" is required, other missing members are empty. Throws
  /// ConversionError for a value of another shape.
  explicit PackageInfo(const Value& value);

  std::string uuid() const;
  std::string version() const;
  std::string installer() const;
  std::string path() const;
  std::string name(const std::string& locale) const;
  std::string description(const std::string& locale) const;
  std::list<BehaviorInfo> behaviors() const;
  std::vector<std::string> may() const;
  Value toValue() const;

private:
  std::shared_ptr<const Data> _data;
};

void to_json(Value& value, const BehaviorInfo& info);
void from_json(const Value& value, BehaviorInfo& info);
void to_json(Value& value, const PackageInfo& info);
void from_json(const Value& value, PackageInfo& info);

} // namespace vu
