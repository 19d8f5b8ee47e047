#include <zb/modulelibrary.hpp>
#include <zbmemory.hpp>

ZB_MODULE_LIBRARY(ZB::ZBMemory, "ZBMemory")
