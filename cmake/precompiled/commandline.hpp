// The same for sources that read command lines.
#pragma once

#include "all.hpp"

#include <CLI/CLI.hpp>
