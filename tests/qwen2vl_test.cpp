#include <gtest/gtest.h>

#include "qwen2vl.hpp"
