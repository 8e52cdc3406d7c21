#include <gtest/gtest.h>

#include "zentil.hpp"
