#include <zb/modulelibrary.hpp>
#include <zbpreferences.hpp>

ZB_MODULE_LIBRARY(ZB::ZBPreferences, "ZBPreferences")
