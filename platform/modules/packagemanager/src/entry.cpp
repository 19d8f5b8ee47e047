#include <packagemanager.hpp>
#include <zb/modulelibrary.hpp>

ZB_MODULE_LIBRARY(ZB::PackageManager, "PackageManager")
