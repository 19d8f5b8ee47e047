// The same for tests.
#pragma once

#include "all.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
