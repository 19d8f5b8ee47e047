// The same for modules.
#pragma once

#include "all.hpp"

#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>
#include <zb/zbmemoryproxy.hpp>
#include <zb/zbmodule.hpp>
#include <zb/zbproxy.hpp>
