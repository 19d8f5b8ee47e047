#pragma once

#include <memory>

#include <zb/zbbroker.hpp>

/// Writes the entry point of a module library: the one symbol that a broker
/// looks for. Stands once in a library, in a source file:
///
///   ZB_MODULE_LIBRARY(My::ZBModuleClass, "ZBMyModule")
#define ZB_MODULE_LIBRARY(ModuleClass, moduleName)                                                                                         \
  extern "C" __attribute__((visibility("default"))) void zbLoadModule(ZB::ZBBroker* broker)                                                \
  {                                                                                                                                        \
    broker->createModule<ModuleClass>(moduleName);                                                                                         \
  }
