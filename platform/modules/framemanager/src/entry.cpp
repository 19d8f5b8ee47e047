#include <zb/modulelibrary.hpp>
#include <zbframemanager.hpp>

ZB_MODULE_LIBRARY(ZB::ZBFrameManager, "ZBFrameManager")
