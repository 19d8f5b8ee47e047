// The same for tests that talk to sockets.
#pragma once

#include "network.hpp"
#include "tests.hpp"
