#include <runhistory.hpp>
#include <zb/modulelibrary.hpp>

ZB_MODULE_LIBRARY(ZB::RunHistory, "RunHistory")
