#pragma once

#include <memory>
#include <string>
#include <vector>

#include <vu/localobject.hpp>
#include <vu/object.hpp>

namespace vu
{

/// The service directory of a process. Thread-safe.
///
/// A name is reserved while its service is being constructed, and appears when
/// the service is published.
class LocalSession
{
public:
  explicit LocalSession(std::shared_ptr<ThreadPool> pool);
  ~LocalSession();
  LocalSession(const LocalSession&) = delete;
  LocalSession& operator=(const LocalSession&) = delete;

  /// Names of the services, sorted.
  std::vector<std::string> services() const;

  /// The service of that name; one that is not there yet is waited for as long
  /// as `timeoutMs` says (negative: without limit), then the future fails with
  /// a ServiceError of kind UnknownService. `protocol` is of no use to this
  /// middleware and ignored.
  Future<Object> service(const std::string& name, const std::string& protocol = {}, int timeoutMs = 0);

  /// Throws a ServiceError when the name is reserved or published already.
  void reserve(const std::string& name);
  bool isReserved(const std::string& name) const;

  /// Publishes a service, reserved before or not; throws as reserve() does
  /// when one is published already.
  void publish(const std::shared_ptr<LocalObject>& object);

  /// Takes the service out of the directory, refuses new calls and waits for
  /// those under way; gives up a reservation. An unknown name is ignored.
  void withdraw(const std::string& name);

  /// The published service, at once; null when there is none.
  std::shared_ptr<LocalObject> find(const std::string& name) const;
  /// The same, but throws unknownService() when there is none; `method` is what
  /// is wanted of it.
  std::shared_ptr<LocalObject> require(const std::string& name, const std::string& method = {}) const;

  /// The same, waiting for as long as the name is reserved: fails as soon as
  /// it is neither reserved nor published.
  Future<Object> whenConstructed(const std::string& name);

  /// Fails all who wait, and every wait from then on.
  void close();

private:
  struct Implementation;
  std::shared_ptr<Implementation> _implementation;
};

} // namespace vu
