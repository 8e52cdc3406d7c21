#include <gtest/gtest.h>

#include "dia.hpp"
