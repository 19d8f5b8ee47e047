#pragma once

#include <nlohmann/json.hpp>

#include <vu/valuefwd.hpp>
