#include <gtest/gtest.h>

#include "convnext.hpp"
